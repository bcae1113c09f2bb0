// SPDX-License-Identifier: MIT
// Compares a stream's payload with a file that is played once or over and over, from wherever in
// it the stream was joined.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "host/base/steady_file.h"
#include "host/measure/figures/content_index.h"

namespace ipplay::measure {

// The file, and where in it a payload stands. Shared by all streams, since copies of one stream are
// joined at the same payload.
class ExpectedContent {
 public:
  // More places than these say nothing about where a stream was joined.
  static constexpr std::size_t kMaxPlaces = 4096;

  // Reads the whole file once.
  explicit ExpectedContent(std::shared_ptr<SteadyFile> file);

  std::uint64_t Size() const { return file_->Size(); }
  // The file has changed, or cannot be read: nothing more is compared.
  bool IsBroken() const { return !file_->Error().empty(); }
  const std::string& Error() const { return file_->Error(); }
  // Appends bytes from `position` on, which go round with the file.
  void Copy(std::uint64_t position, std::size_t length, std::vector<std::uint8_t>& bytes) const;
  // How many bytes of `payload` equal those at `position`, which goes round with the file.
  std::size_t EqualBytes(std::span<const std::uint8_t> payload, std::uint64_t position) const;
  bool Matches(std::span<const std::uint8_t> payload, std::uint64_t position) const {
    return EqualBytes(payload, position) == payload.size();
  }
  // Up to kMaxPlaces + 1 places where the whole payload stands, in rising order. As many, of no
  // meaning, if it is too short to be found or would take too long.
  const std::vector<std::uint64_t>& Places(std::span<const std::uint8_t> payload);
  // The first place at or behind `position`, within `distance`, where the payload stands.
  std::optional<std::uint64_t> FindFrom(std::span<const std::uint8_t> payload,
                                        std::uint64_t position, std::uint64_t distance) const;

 private:
  template <typename Visit>
  void VisitSeam(std::span<const std::uint8_t> payload, std::uint64_t from, std::uint64_t to,
                 Visit&& visit) const;

  std::shared_ptr<SteadyFile> file_;
  ContentIndex index_;
  std::uint64_t seam_start_ = 0;    // in the file
  std::vector<std::uint8_t> seam_;  // from there to the end, and on from the begin
  std::vector<std::uint8_t> last_payload_;
  std::vector<std::uint64_t> last_places_;
};

struct PayloadDifference {
  std::uint64_t datagram = 0;          // counted from 0 as they arrived
  std::size_t datagram_offset = 0;     // of the first byte that differs, in the payload
  std::uint64_t file_offset = 0;       // where that byte stands in the file
  std::vector<std::uint8_t> expected;  // from there on, at most kBytesShown bytes
  std::vector<std::uint8_t> received;
};

class PayloadCompare {
 public:
  static constexpr std::size_t kBytesShown = 16;
  // How far ahead to search after a difference in a stream without sequence numbers.
  static constexpr std::uint64_t kResyncDistance = std::uint64_t{4} * 1024 * 1024;

  explicit PayloadCompare(std::shared_ptr<ExpectedContent> content)
      : content_(std::move(content)) {}

  // Where a datagram stands in the sender's order.
  struct Order {
    bool numbered = false;      // there are sequence numbers, so that the rest is known
    std::uint64_t missing = 0;  // datagrams missing just before this one
    std::uint64_t behind = 0;   // how many datagrams it is behind the farthest one so far
    bool late = false;          // it is behind that one, or doubles it
    bool restarted = false;     // the sender has restarted
  };
  void Add(std::span<const std::uint8_t> payload, const Order& order);

  std::uint64_t Equal() const { return equal_; }
  std::uint64_t Different() const { return different_; }
  // Datagrams before the stream's place in the file was clear.
  std::uint64_t Unplaced() const { return unplaced_; }
  // Bytes of the file that did not come, where no sequence numbers say so.
  std::uint64_t BytesSkipped() const { return skipped_; }
  const std::optional<PayloadDifference>& FirstDifference() const { return first_difference_; }

 private:
  void Join(std::span<const std::uint8_t> payload);
  void CompareLate(std::span<const std::uint8_t> payload, std::uint64_t behind);
  void CompareNext(std::span<const std::uint8_t> payload, const Order& order);
  bool NarrowDown(std::span<const std::uint8_t> payload);
  void NoteDifference(std::span<const std::uint8_t> payload, std::uint64_t position);

  std::shared_ptr<ExpectedContent> content_;
  // Where the next datagram may stand; empty before the stream is joined. Each datagram narrows
  // them down, until one is left.
  std::vector<std::uint64_t> candidates_;
  std::size_t last_length_ = 0;
  std::uint64_t datagrams_ = 0;
  std::uint64_t equal_ = 0;
  std::uint64_t different_ = 0;
  std::uint64_t unplaced_ = 0;
  std::uint64_t skipped_ = 0;
  std::optional<PayloadDifference> first_difference_;
};

}  // namespace ipplay::measure
