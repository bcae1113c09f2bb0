// SPDX-License-Identifier: MIT
#include "host/stream/stream_filter.h"

#include <bitstream/mpeg/ts.h>

namespace ipplay {

void StreamFilter::Filter(std::span<std::uint8_t> packets) {
  if (LeavesAll()) {
    return;
  }
  for (std::size_t at = 0; at < packets.size(); at += format_.packet_bytes) {
    std::uint8_t* const packet = packets.data() + at + format_.SyncOffset();
    const bool is_ours = !program_ || program_->Keeps(packet);
    if (!is_ours || (pids_ && !pids_->Keeps(packet))) {
      ts_pad(packet);
    }
  }
}

}  // namespace ipplay
