// SPDX-License-Identifier: MIT
#include "protocol/internet_checksum.h"

#include <bit>
#include <cstddef>
#include <cstring>

namespace ipplayout {
namespace {

template <typename Word>
Word Load(const std::uint8_t* from) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

std::uint64_t Halves(std::uint64_t word) {
  return (word & 0xFFFFFFFF) + (word >> 32);
}

}  // namespace

std::uint16_t InternetChecksum(std::span<const std::uint8_t> bytes) {
  // RFC 1071 section 2: the sum may be taken in the machine's byte order, on wider words, and its
  // carries folded at the end. Four sums keep the additions independent of each other.
  std::uint64_t sums[4] = {};
  const std::uint8_t* next = bytes.data();
  std::size_t left = bytes.size();
  for (; left >= 32; next += 32, left -= 32) {
    for (std::size_t i = 0; i < 4; ++i) {
      sums[i] += Halves(Load<std::uint64_t>(next + 8 * i));
    }
  }
  std::uint64_t sum = sums[0] + sums[1] + sums[2] + sums[3];
  for (; left >= 2; next += 2, left -= 2) {
    sum += Load<std::uint16_t>(next);
  }
  if (left == 1) {
    const std::uint8_t padded[2] = {*next, 0};
    sum += Load<std::uint16_t>(padded);
  }
  while (sum > 0xFFFF) {
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  auto folded = static_cast<std::uint16_t>(sum);
  if constexpr (std::endian::native == std::endian::little) {
    folded = static_cast<std::uint16_t>(folded << 8 | folded >> 8);
  }
  return static_cast<std::uint16_t>(~folded);
}

}  // namespace ipplayout
