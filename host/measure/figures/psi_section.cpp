// SPDX-License-Identifier: MIT
#include "host/measure/figures/psi_section.h"

#include <array>
#include <cstddef>

#include "host/base/byte_order.h"

namespace ipplay::measure {
namespace {

constexpr std::size_t kLengthEnd = 3;  // bytes up to and including section_length
constexpr std::size_t kPatHeader = 8;  // bytes before the first program
constexpr std::size_t kCrcLength = 4;

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

std::optional<PsiSection> FirstSection(std::span<const std::uint8_t> payload) {
  if (payload.empty()) {
    return std::nullopt;
  }
  const std::size_t start = std::size_t{1} + payload[0];
  if (payload.size() < start + kLengthEnd) {
    return std::nullopt;
  }
  const auto section = payload.subspan(start);
  const std::size_t length = kLengthEnd + (LoadBe16(&section[1]) & 0x0FFFU);
  if (length > section.size()) {
    return PsiSection{section[0], {}};
  }
  return PsiSection{section[0], section.first(length)};
}

std::uint32_t MpegCrc32(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t byte : bytes) {
    crc = (crc << 8) ^ kCrcTable[(crc >> 24) ^ byte];
  }
  return crc;
}

std::vector<std::uint16_t> ProgramMapPids(std::span<const std::uint8_t> section) {
  std::vector<std::uint16_t> pids;
  for (std::size_t at = kPatHeader; at + 4 + kCrcLength <= section.size(); at += 4) {
    const bool is_network = LoadBe16(&section[at]) == 0;
    if (!is_network) {
      pids.push_back(LoadBe16(&section[at + 2]) & 0x1FFF);
    }
  }
  return pids;
}

}  // namespace ipplay::measure
