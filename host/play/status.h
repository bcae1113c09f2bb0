// SPDX-License-Identifier: MIT
// Progress and bit rate of a playout, from the library's counters and the clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "host/play/play_plan.h"
#include "ipplayout/ipplayout.h"
#include "ipplayout/playouts.h"

namespace ipplay {

// One of the targets beyond the first.
struct OutputStatus {
  std::string target;
  std::string into;  // the file that takes its frames, else empty
  std::uint64_t datagrams = 0;
  std::optional<IpPlayoutTiming> timing;
  std::optional<std::string> failure;
};

// Of the second path.
struct TwinStatus {
  std::string target;
  std::chrono::nanoseconds skew{0};
  std::uint64_t seed = 0;
  PlayoutStatistics counters{};
  std::optional<IpPlayoutTiming> timing;
};

struct Status {
  PlayoutStatistics counters{};
  std::chrono::nanoseconds elapsed{0};  // since the first datagram, pauses included
  std::optional<double> share;          // of all bytes to play, 0 to 1; none without an end
  std::optional<std::chrono::nanoseconds> remaining;
  double set_rate = 0;  // bit/s of transport stream, as ordered
  // Over the last seconds, and over the whole run, pauses included; none where too few have left.
  std::optional<double> recent_rate;
  std::optional<double> mean_rate;
  std::uint64_t round = 1;  // of the last datagram
  bool paused = false;
  // Of the delayed datagrams, those that the end came before; nothing where it is not known.
  std::optional<std::uint64_t> held_back;
  IpPlayoutFaultCounts faults{};
  std::vector<std::uint64_t> stream_faults{};  // packets, in the order of the options
  std::optional<IpPlayoutTiming> timing;       // where it is recorded
  std::optional<double> input_ppm;             // of its clock, where that is followed
  std::vector<OutputStatus> outputs{};         // beyond the first
  std::optional<TwinStatus> twin{};
  std::optional<Damage> damage;  // of the input, at the end of the run; none of raw input
};

// Fed with readings of the counters, oldest first. All times are of one steady clock.
class StatusMeter {
 public:
  explicit StatusMeter(const PlayPlan& plan);

  void SetPaused(bool paused) { paused_ = paused; }
  // Bit/s of the transport stream, as ordered from now on.
  void SetRate(double rate) { stream_rate_ = rate; }
  void Read(const PlayoutStatistics& counters, std::chrono::nanoseconds now);
  // Final counters. If `complete`, the run ended at the last reading. Where departures were
  // recorded, the bit rate is theirs.
  void End(const PlayoutStatistics& counters, bool complete,
           const std::optional<IpPlayoutTiming>& timing = std::nullopt);

  bool Started() const { return first_.has_value(); }
  // Whether the mean rate can be taken between readings.
  bool IsSteady() const { return steady_.has_value(); }
  bool Paused() const { return paused_; }
  Status Total() const;

 private:
  struct Reading {
    std::chrono::nanoseconds time;
    std::uint64_t ts_bytes;
  };

  std::optional<double> MeanRate() const;
  std::optional<double> RateOf(std::uint64_t sent, std::chrono::nanoseconds time) const;
  std::optional<double> RateOfDepartures() const;
  double RateSince(const Reading& from) const;

  std::optional<std::uint64_t> total_bytes_;
  std::optional<std::uint64_t> round_bytes_;
  double stream_rate_;
  double share_sent_;               // of the datagrams; the rest is lost on purpose
  double input_bytes_per_ts_byte_;  // TSBytesSent leaves out the time stamps of 192-byte packets
  double ts_bytes_per_datagram_;
  bool paused_ = false;
  std::uint64_t copies_;
  bool has_fec_;
  std::uint64_t datagrams_per_burst_;                     // 1 without bursts
  std::optional<std::chrono::nanoseconds> before_first_;  // last reading without a datagram
  std::optional<std::chrono::nanoseconds> first_;         // departure of the first datagram
  // The first reading after the start-up, when the library has filled its queues. From here on the
  // number of datagrams that are counted but have not left yet stays the same.
  std::optional<Reading> steady_;
  bool complete_ = false;
  std::optional<IpPlayoutTiming> timing_;  // at the end
  PlayoutStatistics counters_{};
  std::deque<Reading> readings_;  // of the last seconds
};

}  // namespace ipplay
