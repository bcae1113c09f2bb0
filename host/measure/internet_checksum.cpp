#include "host/measure/internet_checksum.h"

#include <bit>
#include <cstddef>
#include <cstring>

namespace ipplay::measure {
namespace {

constexpr std::size_t kWordsAtOnce = 16;
constexpr std::size_t kBlock = kWordsAtOnce * sizeof(std::uint32_t);

std::uint64_t SumOfBlocks(const std::uint8_t* p, std::size_t blocks) {
  // Independent sums, so that the compiler can keep them in vector registers.
  std::uint64_t sums[kWordsAtOnce] = {};
  for (; blocks > 0; --blocks, p += kBlock) {
    std::uint32_t words[kWordsAtOnce];
    std::memcpy(words, p, kBlock);
    for (std::size_t i = 0; i < kWordsAtOnce; ++i) sums[i] += words[i];
  }
  std::uint64_t sum = 0;
  for (const std::uint64_t part : sums) sum += part;
  return sum;
}

std::uint16_t Fold(std::uint64_t sum) {
  while (sum >> 16 != 0) sum = (sum & 0xFFFFU) + (sum >> 16);
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
  if constexpr (std::endian::native == std::endian::big) return folded;
  return static_cast<std::uint16_t>((folded << 8) | (folded >> 8));
}

}  // namespace ipplay::measure
