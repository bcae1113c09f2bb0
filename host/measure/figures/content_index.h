// SPDX-License-Identifier: MIT
// Finds a payload in a file without reading the file again.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "host/base/steady_file.h"

namespace ipplay::measure {

// Knows a hash of each of the file's blocks, which lie side by side. Wherever a payload of two
// blocks stands, it holds a whole one.
class ContentIndex {
 public:
  // Reads the whole file.
  explicit ContentIndex(SteadyFile& file);

  // Shorter payloads cannot be found.
  std::size_t ShortestPayload() const { return 2 * block_bytes_ - 1; }

  // Calls visit(place) for places from `from` to before `to` where the payload may stand: all where
  // it does, but for those where it goes beyond the file's end. The places rise as long as they
  // have the same remainder to the block's length; false from `visit` ends those.
  template <typename Visit>
  void ForEach(std::span<const std::uint8_t> payload, std::uint64_t from, std::uint64_t to,
               Visit&& visit) const;

 private:
  // A block's hash above its number.
  using Entry = std::uint64_t;
  using Entries = std::span<const Entry>;
  // So few candidates are tried without looking for fewer.
  static constexpr std::size_t kFew = 16;

  Entries WithHash(std::uint32_t hash) const;
  // The entries of that whole block of the payload which is rarest in the file, of those that begin
  // at `shift` and whole blocks later; sets `at` to where it begins.
  Entries RarestFrom(std::span<const std::uint8_t> payload, std::size_t shift,
                     std::size_t& at) const;
  std::uint64_t PlaceOf(Entry entry) const { return (entry & 0xFFFFFFFF) * block_bytes_; }

  std::size_t block_bytes_;
  std::vector<Entry> entries_;  // sorted
  // By the upper bits of a hash: where its entries begin. One more at the end.
  std::vector<std::uint32_t> starts_;
  int hash_shift_ = 0;
};

template <typename Visit>
void ContentIndex::ForEach(std::span<const std::uint8_t> payload, std::uint64_t from,
                           std::uint64_t to, Visit&& visit) const {
  for (std::size_t shift = 0; shift < block_bytes_ && shift + block_bytes_ <= payload.size();
       ++shift) {
    std::size_t at = 0;
    const Entries entries = RarestFrom(payload, shift, at);
    const auto first = std::ranges::partition_point(
        entries, [&](Entry entry) { return PlaceOf(entry) < from + at; });
    for (const Entry entry : Entries(first, entries.end())) {
      const std::uint64_t place = PlaceOf(entry) - at;
      if (place >= to || !visit(place)) {
        break;
      }
    }
  }
}

}  // namespace ipplay::measure
