// SPDX-License-Identifier: MIT
#include "host/stream/pcr.h"

#include <bitstream/mpeg/ts.h>

namespace ipplay {

std::optional<std::uint64_t> ReadPcr(const std::uint8_t* packet) {
  constexpr int kFlagsAndPcr = 7;
  if (!ts_has_adaptation(packet) || ts_get_adaptation(packet) < kFlagsAndPcr ||
      !tsaf_has_pcr(packet)) {
    return std::nullopt;
  }
  return tsaf_get_pcr(packet) * 300 + tsaf_get_pcrext(packet);
}

void WritePcr(std::uint8_t* packet, std::uint64_t ticks) {
  ticks %= kPcrModulus;
  tsaf_set_pcr(packet, ticks / 300);
  tsaf_set_pcrext(packet, static_cast<std::uint16_t>(ticks % 300));
}

}  // namespace ipplay
