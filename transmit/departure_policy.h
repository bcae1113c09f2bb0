// SPDX-License-Identifier: MIT
// When a frame leaves that has its place in a schedule, and what happens when that time has passed.
// Arithmetic only: the transmitter waits and sends.
#pragma once

#include <chrono>
#include <cstdint>

namespace ipplayout {

enum class WhenLate { kBounded, kCatchUp, kShift, kDrop };

struct LateRule {
  WhenLate what = WhenLate::kBounded;
  double catch_up = 1.25;  // times the rate at most, when bounded
  std::chrono::nanoseconds tolerance = std::chrono::milliseconds(1);
};

// For the frames of one playout, in their order. All times are on one clock.
class DeparturePolicy {
 public:
  using Time = std::chrono::nanoseconds;

  DeparturePolicy() = default;
  explicit DeparturePolicy(const LateRule& rule) : rule_(rule) {}

  // When a frame is to leave whose place is at `due`.
  Time Plan(Time due) const;

  // That frame is about to leave at `now`, planned for `planned`. False when it is to be left out.
  bool Settle(Time due, Time planned, Time now);

  // It did not leave after all: it holds back nothing that follows.
  void Refused() { any_ = false; }

  // The place of a frame in the schedule as it has moved: what it is late against.
  Time Place(Time due) const { return due + shift_; }
  // By how much the schedule has moved.
  Time Shifted() const { return shift_; }
  // Everything that follows is so much later: a pause.
  void Shift(Time by) {
    shift_ += by;
    last_departure_ += by;
  }

 private:
  LateRule rule_;
  Time shift_{0};
  bool any_ = false;
  Time last_due_{0};
  Time last_departure_{0};  // as planned
};

}  // namespace ipplayout
