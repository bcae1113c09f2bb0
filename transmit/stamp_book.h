// SPDX-License-Identifier: MIT
// Which frame a departure stamp of the kernel belongs to.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "driver/frame_sink.h"
#include "transmit/departure_ledger.h"

namespace ipplayout {

struct ScheduledStream;

// The transmitter's own. Asks for the stamps of some frames of each stream that wants them, not
// more in a second than can be read beside the sending, and puts them into the streams' records and
// ledgers.
class StampBook {
 public:
  using Time = std::chrono::nanoseconds;

  // Of how many frames one is stamped, for streams of so many frames a second in all.
  void SampleFor(double frames_per_second);

  // A tag for a frame of a stream with its place in the schedule, or 0: not this one.
  std::uint32_t TagFor(ScheduledStream& stream, Time place);

  // Where the ledger of its stream has the frame with this tag, if it is one.
  void EnterRecord(std::uint32_t tag, std::uint64_t record);

  // Stamps may be there to be read.
  std::size_t Outstanding() const { return outstanding_; }
  // Reads what has come. Never blocks.
  void Read();
  // The frame with this tag has not left.
  void Withdraw(std::uint32_t tag);
  // Stamps of this stream that come later are nobody's.
  void Forget(const ScheduledStream& stream);

 private:
  // More than the kernel keeps for a socket before they are read.
  static constexpr std::size_t kMostTags = 4096;

  struct Entry {
    std::uint32_t tag = 0;
    ScheduledStream* stream = nullptr;
    Time place{0};
    std::uint64_t record = DepartureLedger::kNowhere;
  };

  std::array<Entry, kMostTags> entries_{};
  std::vector<FrameSink*> sinks_;  // that have been asked
  std::uint32_t last_tag_ = 0;
  std::uint32_t every_ = 1;
  std::uint32_t until_next_ = 0;
  std::size_t outstanding_ = 0;
};

}  // namespace ipplayout
