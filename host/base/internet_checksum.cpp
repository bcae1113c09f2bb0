// SPDX-License-Identifier: MIT
#include "host/base/internet_checksum.h"

#include <bit>
#include <cstddef>
#include <cstring>

namespace ipplay {
namespace {

constexpr std::size_t kBlock = 2 * sizeof(std::uint64_t);

// Low and high halves are added apart, so that no carry is lost and nothing waits for one.
std::uint64_t SumOfBlocks(const std::uint8_t* p, std::size_t blocks) {
  constexpr std::uint64_t kLow = 0xFFFFFFFF;
  std::uint64_t low[2] = {};
  std::uint64_t high[2] = {};
  for (; blocks > 0; --blocks, p += kBlock) {
    std::uint64_t words[2];
    std::memcpy(words, p, kBlock);
    for (int i = 0; i < 2; ++i) {
      low[i] += words[i] & kLow;
      high[i] += words[i] >> 32;
    }
  }
  return low[0] + low[1] + high[0] + high[1];
}

std::uint16_t Fold(std::uint64_t sum) {
  while (sum >> 16 != 0) {
    sum = (sum & 0xFFFFU) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(sum);
}

}  // namespace

std::uint16_t OnesComplementSum(std::span<const std::uint8_t> bytes) {
  // Added up in the processor's own byte order and swapped once at the end (RFC 1071, 2(B)).
  const std::size_t blocks = bytes.size() / kBlock;
  std::uint64_t sum = SumOfBlocks(bytes.data(), blocks);
  std::size_t at = blocks * kBlock;
  for (; at + 1 < bytes.size(); at += 2) {
    std::uint16_t word;
    std::memcpy(&word, bytes.data() + at, sizeof word);
    sum += word;
  }
  if (at < bytes.size()) {
    const std::uint8_t last[2] = {bytes[at], 0};
    std::uint16_t word;
    std::memcpy(&word, last, sizeof word);
    sum += word;
  }
  const std::uint16_t folded = Fold(sum);
  if constexpr (std::endian::native == std::endian::big) {
    return folded;
  }
  return static_cast<std::uint16_t>((folded << 8) | (folded >> 8));
}

}  // namespace ipplay
