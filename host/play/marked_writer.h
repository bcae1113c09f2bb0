// SPDX-License-Identifier: MIT
// Writes a stream into a playout by time marks, with a mark for each PCR.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "host/library/scheduled_playout.h"
#include "host/stream/clock_follower.h"
#include "host/stream/packet_format.h"
#include "host/stream/pcr_marks.h"
#include "host/stream/stream_faults.h"

namespace ipplay {

// Holds back what follows a PCR until the next one says when that leaves, or until it is as much as
// no PCR interval should be. The feeder's.
class MarkedWriter {
 public:
  using Time = std::chrono::nanoseconds;

  // `faults` are made behind the marks, which the stream's own PCRs give; null for none.
  MarkedWriter(ScheduledPlayout& playout, PacketFormat format, const PcrMarks& marks,
               StreamFaults* faults)
      : playout_(playout), format_(format), marks_(marks), faults_(faults) {}

  // From now on the clock of the input is followed. The playout starts at `start`, on
  // CLOCK_MONOTONIC, and what comes then is meant to wait for `lead`.
  void Follow(Time start, Time lead);
  // What is written next came at this time, since 1970; nothing: it has been read just now.
  void Arrived(std::optional<std::int64_t> time_ns);

  // False once the playout has ended.
  bool Write(std::span<const std::uint8_t> bytes);
  // Writes what is held back, and declares the end.
  void Finish();

  // For any thread: by how much the input's clock is faster than this machine's.
  double FollowedPpm() const { return followed_ppm_.load(std::memory_order_relaxed); }

 private:
  struct Following {
    ClockFollower follower;
    Time start;
    Time arrival{0};  // of what is written, on CLOCK_MONOTONIC
    bool knows_arrivals = false;
    Time due{0};    // of the last mark
    Time shift{0};  // of the playout's schedule, by pauses
    Time asked{0};  // when that was asked for
  };

  void Place(std::size_t position, Time time);
  bool HasToGo() const;
  bool WriteUpTo(std::size_t end);

  ScheduledPlayout& playout_;
  const PacketFormat format_;
  PcrMarks marks_;
  StreamFaults* const faults_;
  std::optional<Following> following_;
  std::vector<std::uint8_t> held_;  // that was not written yet
  std::size_t looked_at_ = 0;       // of it, in whole packets
  std::uint64_t written_ = 0;
  std::atomic<double> followed_ppm_{0};
};

}  // namespace ipplay
