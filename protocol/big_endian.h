// SPDX-License-Identifier: MIT
// Big-endian numbers in byte arrays, written and read with shifts.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ipplayout {

template <std::size_t N>
constexpr std::uint64_t LoadBigEndian(const std::uint8_t* from) {
  static_assert(N <= 8);
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < N; ++i) {
    value = value << 8 | from[i];
  }
  return value;
}

template <std::size_t N>
constexpr void StoreBigEndian(std::uint64_t value, std::uint8_t* to) {
  static_assert(N <= 8);
  for (std::size_t i = 0; i < N; ++i) {
    to[i] = static_cast<std::uint8_t>(value >> (8 * (N - 1 - i)));
  }
}

}  // namespace ipplayout
