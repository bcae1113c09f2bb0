// SPDX-License-Identifier: MIT
// Big-endian fields of received bytes. The caller has checked that they are there.
#pragma once

#include <cstdint>

namespace ipplay::measure {

constexpr std::uint16_t LoadBe16(const std::uint8_t* p) {
  return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

constexpr std::uint32_t LoadBe32(const std::uint8_t* p) {
  return (static_cast<std::uint32_t>(LoadBe16(p)) << 16) | LoadBe16(p + 2);
}

}  // namespace ipplay::measure
