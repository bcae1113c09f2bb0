// SPDX-License-Identifier: MIT
#include "host/measure/figures/content_index.h"

#include <bit>
#include <cstring>

namespace ipplay::measure {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

// The larger the file, the longer the blocks, to bound the memory. Up to the second length a
// datagram of one transport packet can be found, behind it one of seven.
std::size_t BlockBytesFor(std::uint64_t file_bytes) {
  constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
  if (file_bytes <= 256 * kMiB) {
    return 64;
  }
  return file_bytes <= 2048 * kMiB ? 94 : 512;
}

std::uint32_t HashOf(ByteSpan block) {
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15;
  std::uint64_t hash = block.size();
  for (std::size_t at = 0; at < block.size(); at += sizeof hash) {
    std::uint64_t word = 0;
    std::memcpy(&word, block.data() + at, std::min(sizeof word, block.size() - at));
    hash = (hash ^ word) * kOdd;
    hash ^= hash >> 29;
  }
  return static_cast<std::uint32_t>((hash * kOdd) >> 32);
}

}  // namespace

ContentIndex::ContentIndex(SteadyFile& file) : block_bytes_(BlockBytesFor(file.Size())) {
  entries_.reserve(file.Size() / block_bytes_);
  std::vector<std::uint8_t> rest;  // of a block
  std::uint64_t read = 0;
  while (read < file.Size()) {
    ByteSpan bytes = file.View(read);
    if (bytes.empty()) {
      break;
    }
    read += bytes.size();
    while (!bytes.empty()) {
      const std::size_t length = std::min(block_bytes_ - rest.size(), bytes.size());
      rest.insert(rest.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
      bytes = bytes.subspan(length);
      if (rest.size() == block_bytes_) {
        entries_.push_back(Entry{HashOf(rest)} << 32 | entries_.size());
        rest.clear();
      }
    }
  }
  std::ranges::sort(entries_);
  const int bits = std::clamp(static_cast<int>(std::bit_width(entries_.size())), 1, 30);
  hash_shift_ = 32 - bits;
  starts_.resize((std::size_t{1} << bits) + 1, static_cast<std::uint32_t>(entries_.size()));
  for (std::size_t i = entries_.size(); i-- > 0;) {
    starts_[(entries_[i] >> 32) >> hash_shift_] = static_cast<std::uint32_t>(i);
  }
  for (std::size_t i = starts_.size() - 1; i-- > 0;) {
    starts_[i] = std::min(starts_[i], starts_[i + 1]);
  }
}

ContentIndex::Entries ContentIndex::WithHash(std::uint32_t hash) const {
  const std::size_t start = hash >> hash_shift_;
  const Entries near =
      Entries(entries_).subspan(starts_[start], starts_[start + 1] - starts_[start]);
  const Entry least = Entry{hash} << 32;
  const auto first = std::lower_bound(near.begin(), near.end(), least);
  return {first, std::upper_bound(first, near.end(), least | 0xFFFFFFFF)};
}

ContentIndex::Entries ContentIndex::RarestFrom(ByteSpan payload, std::size_t shift,
                                               std::size_t& at) const {
  at = shift;
  Entries rarest = WithHash(HashOf(payload.subspan(shift, block_bytes_)));
  for (std::size_t next = shift + block_bytes_;
       rarest.size() > kFew && next + block_bytes_ <= payload.size(); next += block_bytes_) {
    const Entries entries = WithHash(HashOf(payload.subspan(next, block_bytes_)));
    if (entries.size() < rarest.size()) {
      rarest = entries;
      at = next;
    }
  }
  return rarest;
}

}  // namespace ipplay::measure
