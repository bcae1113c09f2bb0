// SPDX-License-Identifier: MIT
// Writes a stream into a playout by time marks: one for each PCR, or for each datagram of a
// capture.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "host/library/scheduled_playout.h"
#include "host/play/feeder.h"
#include "host/stream/arrival_marks.h"
#include "host/stream/clock_follower.h"
#include "host/stream/packet_format.h"
#include "host/stream/pcr_marks.h"
#include "host/stream/stream_faults.h"

namespace ipplay {

// Datagrams of a capture leave when they came; `datagram_bytes` above 0 leaves a hole for each that
// is missing, with a sequence number of its own, in a stream whose datagrams are all of that size.
struct CaptureClock {
  ArrivalMarks marks;
  std::size_t datagram_bytes = 0;
};

// Holds back what follows a mark until the next one says when that leaves, or until it is as much
// as no PCR interval should be. The feeder's.
class MarkedWriter {
 public:
  using Time = std::chrono::nanoseconds;

  using Clock = std::variant<PcrMarks, CaptureClock>;
  // Number of the orders that lose what is missing.
  static constexpr std::uint64_t kMissing = UINT64_MAX;

  // `faults` are made behind the marks, which the stream's own PCRs may give; null for none.
  MarkedWriter(ScheduledPlayout& playout, PacketFormat format, const Clock& clock,
               StreamFaults* faults)
      : playout_(playout), format_(format), clock_(clock), faults_(faults) {}

  // From now on the clock of the input is followed. The playout starts at `start`, on
  // CLOCK_MONOTONIC, and what comes then is meant to wait for `lead`.
  void Follow(Time start, Time lead);
  // The same as soon as can be; the time of the start.
  Time FollowFromNow(Time lead);
  // Calls what follows. It outlives the feeder.
  Feeder::Sink Sink();
  // What is written next came then; nothing: it has been read just now.
  void Arrived(const std::optional<Arrival>& arrival);
  bool WantsDatagrams() const { return std::holds_alternative<CaptureClock>(clock_); }
  // The PCRs of what is written next are those of this PID.
  void FollowPid(std::uint16_t pid);

  // False once the playout has ended.
  bool Write(std::span<const std::uint8_t> bytes);
  // When what is held back cannot wait for the next PCR any more; nothing where it can.
  std::optional<Time> HasToGoAt() const;
  // Writes it if that is now.
  void WriteWhatHasToGo();
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
  void PlaceDatagram(CaptureClock& capture, const Arrival& arrival);
  void AddMissing(std::size_t count, std::size_t bytes, Time until);
  bool HasToGo() const;
  bool WriteUpTo(std::size_t end);

  ScheduledPlayout& playout_;
  const PacketFormat format_;
  Clock clock_;
  StreamFaults* const faults_;
  std::optional<Following> following_;
  std::vector<std::uint8_t> held_;  // that was not written yet
  std::size_t looked_at_ = 0;       // of it, in whole packets
  std::size_t placed_ = 0;          // of it, before the mark of the last datagram
  Time last_datagram_{0};           // that mark
  std::uint64_t written_ = 0;
  std::atomic<double> followed_ppm_{0};
};

}  // namespace ipplay
