// SPDX-License-Identifier: MIT
#include "host/measure/figures/psi_section.h"

#include <array>

#include "host/base/byte_order.h"

namespace ipplay::measure {
namespace {

constexpr std::size_t kLongHeader = 8;  // with section_syntax_indicator
constexpr std::size_t kCrcLength = 4;
constexpr std::uint8_t kTableTimeOffset =
    0x73;  // the short one with check bytes, EN 300 468, 5.2.6

constexpr std::array<std::uint32_t, 256> MakeCrcTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t crc = i << 24;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc << 1) ^ ((crc >> 31) != 0 ? 0x04C11DB7U : 0U);
    }
    table[i] = crc;
  }
  return table;
}
constexpr auto kCrcTable = MakeCrcTable();

}  // namespace

std::size_t SectionAssembler::LengthOf(Section section) {
  return section.size() < kLengthEnd ? SIZE_MAX : kLengthEnd + (LoadBe16(&section[1]) & 0x0FFFU);
}

std::uint32_t MpegCrc32(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t byte : bytes) {
    crc = (crc << 8) ^ kCrcTable[(crc >> 24) ^ byte];
  }
  return crc;
}

bool IsIntact(Section section) {
  if (section.size() < 3 || section.size() != 3U + (LoadBe16(&section[1]) & 0x0FFFU)) {
    return false;
  }
  const bool is_long = (section[1] & 0x80) != 0;
  if (is_long && section.size() < kLongHeader + kCrcLength) {
    return false;
  }
  return !(is_long || section[0] == kTableTimeOffset) || MpegCrc32(section) == 0;
}

}  // namespace ipplay::measure
