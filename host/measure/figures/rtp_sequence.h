// SPDX-License-Identifier: MIT
// Loss, reordering and duplication by RTP sequence numbers.
#pragma once

#include <bitset>
#include <cstdint>
#include <optional>

#include "host/measure/figures/histogram.h"

namespace ipplay::measure {

enum class SequenceEvent {
  kFirst,      // first packet of the stream
  kInOrder,    // the number that was expected
  kGap,        // a later number: those between are missing so far
  kLate,       // an earlier number that was missing (reordered, RFC 4737, 3.3)
  kDuplicate,  // a number that has come before
  kStray,      // far away from what was expected; ignored unless the next one follows it
  kRestart,    // second packet in a row of a new numbering
};

struct SequenceResult {
  SequenceEvent event = SequenceEvent::kInOrder;
  // Packets newly missing (kGap), or how far behind the highest number this one is (kLate).
  std::uint32_t distance = 0;
};

class RtpSequence {
 public:
  // RFC 3550, A.1: a number so far ahead, or so far behind, may be one of a new numbering.
  static constexpr std::uint32_t kMaxDropout = 3000;
  static constexpr std::uint32_t kMaxMisorder = 100;
  // Numbers this far behind the highest one are known to have come or not.
  static constexpr std::uint32_t kWindow = 16384;

  // Far from the highest number, the time stamp settles whether the numbering is still the same: a
  // long loss and a late copy keep step with it. Without one, only A.1 does.
  SequenceResult Add(std::uint16_t number, std::optional<std::uint32_t> timestamp = std::nullopt);

  std::uint64_t Received() const { return received_; }  // duplicates and strays included
  // Numbers between the first and the highest one that have not come (yet), over all numberings.
  std::uint64_t Lost() const { return lost_; }
  std::uint64_t LossPeriods() const { return loss_periods_; }  // RFC 3357: runs of missing numbers
  std::uint64_t LongestLoss() const { return longest_loss_; }
  std::uint64_t Duplicates() const { return duplicates_; }
  std::uint64_t Strays() const { return strays_; }
  std::uint64_t Restarts() const { return restarts_; }
  // Extended, of the numbering that holds: the lowest number that has come, and the highest one.
  std::uint64_t First() const { return first_; }
  std::uint64_t Highest() const { return highest_; }
  // For numbers up to the highest one, less than kWindow behind it.
  bool HasCome(std::uint64_t number) const { return seen_.test(number % kWindow); }
  // Late packets, by how many numbers they were behind the highest one.
  const Histogram& Reordering() const { return reordering_; }

 private:
  SequenceResult Place(std::uint16_t number, std::optional<std::uint32_t> timestamp);
  void FollowTimestamp(const SequenceResult& result, std::uint32_t timestamp);
  // Whether a packet `steps` after the highest one would bear this time stamp.
  bool KeepsStep(std::int64_t steps, std::optional<std::uint32_t> timestamp) const;
  void Start(std::uint16_t number);
  SequenceResult Advance(std::uint32_t ahead);
  SequenceResult FallBehind(std::uint32_t behind);
  SequenceResult Stray(std::uint16_t number);

  // Bit (extended number mod kWindow): has come.
  std::bitset<kWindow> seen_;
  std::uint64_t highest_ = 0;  // extended; starts high enough that numbers before the first fit
  std::uint64_t first_ = 0;
  std::optional<std::uint16_t> after_stray_;
  std::uint32_t highest_timestamp_ = 0;
  double ticks_per_packet_ = 0;  // running mean; 0 while unknown
  std::uint64_t received_ = 0;
  std::uint64_t lost_ = 0;
  std::uint64_t loss_periods_ = 0;
  std::uint64_t longest_loss_ = 0;
  std::uint64_t duplicates_ = 0;
  std::uint64_t strays_ = 0;
  std::uint64_t restarts_ = 0;
  Histogram reordering_;
};

}  // namespace ipplay::measure
