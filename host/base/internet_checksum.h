// SPDX-License-Identifier: MIT
// The ones'-complement sum of RFC 1071.
#pragma once

#include <cstdint>
#include <span>

namespace ipplay {

// Sum of the bytes as big-endian 16-bit words, an odd last byte padded with zero, folded to 16
// bits. Bytes that include their own correct checksum sum up to 0xFFFF.
std::uint16_t OnesComplementSum(std::span<const std::uint8_t> bytes);

// Sum of two sums.
constexpr std::uint16_t AddSums(std::uint16_t a, std::uint16_t b) {
  const std::uint32_t sum = std::uint32_t{a} + b;
  return static_cast<std::uint16_t>((sum & 0xFFFFU) + (sum >> 16));
}

}  // namespace ipplay
