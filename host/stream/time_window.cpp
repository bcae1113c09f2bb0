// SPDX-License-Identifier: MIT
#include "host/stream/time_window.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>

#include "host/stream/pcr.h"

namespace ipplay {

std::span<std::uint8_t> TimeWindow::Pass(std::span<std::uint8_t> packets) {
  std::size_t start = inside_ ? 0 : packets.size();
  for (std::size_t at = 0; at < packets.size() && !over_; at += format_.packet_bytes) {
    Advance(packets.data() + at + format_.SyncOffset());
    if (over_) {
      return packets.subspan(std::min(start, at), at - std::min(start, at));
    }
    if (inside_ && start == packets.size()) {
      start = at;
    }
  }
  return over_ ? packets.first(0) : packets.subspan(start);
}

void TimeWindow::Advance(const std::uint8_t* packet) {
  constexpr std::uint64_t kJump = 10 * kPcrHz;
  const auto pcr = ReadPcr(packet);
  if (!pcr || (pid_ && *pid_ != ts_get_pid(packet))) {
    return;
  }
  pid_ = ts_get_pid(packet);
  const std::uint64_t step = last_ ? (*pcr + kPcrModulus - *last_) % kPcrModulus : 0;
  elapsed_ += step <= kJump && !tsaf_has_discontinuity(packet) ? step : 0;
  last_ = pcr;
  over_ = span_.until && elapsed_ >= *span_.until;
  inside_ = elapsed_ >= span_.from && !over_;
}

}  // namespace ipplay
