// SPDX-License-Identifier: MIT
// Program specific information, ISO/IEC 13818-1, 2.4.4, as far as a section fits in one packet.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace ipplay::measure {

inline constexpr std::uint8_t kTablePat = 0x00;
inline constexpr std::uint8_t kTablePmt = 0x02;

struct PsiSection {
  std::uint8_t table_id = 0;
  // The whole section with its check bytes; empty when it goes on in further packets.
  std::span<const std::uint8_t> bytes;
};

// The section that begins in the payload of a packet whose payload unit start indicator is set.
std::optional<PsiSection> FirstSection(std::span<const std::uint8_t> payload);

// CRC-32 of ISO/IEC 13818-1, Annex A: 0 over a whole intact section.
std::uint32_t MpegCrc32(std::span<const std::uint8_t> bytes);

// PIDs of the program maps that a program association section names.
std::vector<std::uint16_t> ProgramMapPids(std::span<const std::uint8_t> section);

}  // namespace ipplay::measure
