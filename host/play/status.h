// SPDX-License-Identifier: MIT
// How far a playout is and how fast it goes, from the library's counters and the clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

#include "host/play/play_plan.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {

struct Status {
  PlayoutStatistics counters{};
  std::chrono::nanoseconds elapsed{0};  // since the first datagram, pauses included
  std::optional<double> share;          // of all bytes to play, 0 to 1; nothing without an end
  std::optional<std::chrono::nanoseconds> remaining;
  double recent_rate = 0;   // bits per second of transport stream over the last seconds
  double mean_rate = 0;     // over the whole run; the library makes up for pauses
  std::uint64_t round = 1;  // that the last datagram belongs to
  bool paused = false;
};

// Fed with readings of the counters, oldest first. Times are of one steady clock.
class StatusMeter {
 public:
  explicit StatusMeter(const PlayPlan& plan);

  void SetPaused(bool paused) { paused_ = paused; }
  void Read(const PlayoutStatistics& counters, std::chrono::nanoseconds now);
  // What has left in the end; at the last reading, if all that there was to play has been played.
  void End(const PlayoutStatistics& counters, bool complete);

  bool Started() const { return first_.has_value(); }
  bool UnderWay() const { return under_way_.has_value(); }
  bool Paused() const { return paused_; }
  Status Total() const;

 private:
  struct Reading {
    std::chrono::nanoseconds time;
    std::uint64_t ts_bytes;
  };

  double MeanRate() const;
  double RateSince(const Reading& from) const;

  std::optional<std::uint64_t> total_bytes_;
  std::optional<std::uint64_t> round_bytes_;
  double stream_rate_;
  double share_that_leaves_;
  double bytes_per_ts_byte_;  // bytes read from the input for each byte that TSBytesSent counts
  double ts_bytes_per_datagram_;
  bool paused_ = false;
  std::uint64_t burst_;                              // datagrams that leave at once
  std::optional<std::chrono::nanoseconds> waiting_;  // last reading before the first datagram
  std::optional<std::chrono::nanoseconds> first_;    // time of the first datagram
  std::optional<Reading> under_way_;                 // as many in hand as ever since
  bool complete_ = false;
  PlayoutStatistics counters_{};
  std::deque<Reading> readings_;  // of the last seconds
};

}  // namespace ipplay
