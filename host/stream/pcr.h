// SPDX-License-Identifier: MIT
// Program clock references (PCRs): ISO/IEC 13818-1, 2.4.3.5.
#pragma once

#include <cstdint>
#include <optional>

namespace ipplay {

inline constexpr std::uint64_t kPcrHz = 27'000'000;
inline constexpr std::uint64_t kPcrModulus = (std::uint64_t{1} << 33) * 300;

// The PCR of a 188-byte transport packet in 27 MHz ticks; none if the packet has none, or an
// adaptation field too short to hold it.
std::optional<std::uint64_t> ReadPcr(const std::uint8_t* packet);

// Writes a PCR into the adaptation field, which must have room for it. Ticks wrap at kPcrModulus.
void WritePcr(std::uint8_t* packet, std::uint64_t ticks);

}  // namespace ipplay
