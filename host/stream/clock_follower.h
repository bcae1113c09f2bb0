// SPDX-License-Identifier: MIT
// Follows the clock of a live stream, which never runs exactly as this machine's does: without it
// what waits to be played grows or dries up, by milliseconds a minute.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace ipplay {

// A loop of the second order over the lead: how long before its time data arrives. It goes by the
// greatest lead of each five seconds, since a network only delays, and settles within about ten
// minutes, more slowly where arrivals vary by more than 50 ms. The pace changes by at most 1 ppm a
// second and stays within 300 ppm, so that receivers can follow it.
class ClockFollower {
 public:
  using Time = std::chrono::nanoseconds;

  // Data is meant to arrive `lead` before it is played.
  explicit ClockFollower(Time lead) : wanted_lead_(lead) {}

  // When what the stream's clock puts at `stream` is to be played. Does not go down.
  Time Map(Time stream);

  // Data that is to be played at `due` has come at `now`, on the same clock.
  void Arrived(Time due, Time now);
  // The data could have come earlier, but nobody took it: this says nothing about its clock.
  void HeldUp() { held_up_ = true; }

  // By which the playout is faster than this machine's clock.
  double Ppm() const { return ppm_; }
  // How often nothing had come in time for seconds, so that the playout was moved to a later time.
  std::uint64_t Moves() const { return moves_; }

 private:
  void CloseWindow(Time now);
  void Follow(Time lead, Time spread);
  bool IsStep(Time change, Time spread) const;

  const Time wanted_lead_;
  std::optional<Time> last_stream_;
  double played_ns_ = 0;  // what last_stream_ is mapped to
  double ppm_ = 0;
  double next_ppm_ = 0;   // what it moves to
  double drift_ppm_ = 0;  // the part that lasts

  std::optional<Time> window_start_;
  Time least_lead_{0};
  Time greatest_lead_{0};
  bool held_up_ = false;
  std::optional<Time> target_;  // greatest lead that is as it should be
  Time last_error_{0};
  std::uint64_t moves_ = 0;
};

}  // namespace ipplay
