// SPDX-License-Identifier: MIT
#include "host/stream/clock_follower.h"

#include <algorithm>
#include <cmath>

namespace ipplay {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kWindow(5);
// No clock moves data by so much from window to window: a source that was held up, that catches up,
// or that delivers ahead of its time. What it leaves is the new normal.
constexpr milliseconds kStep(10);
constexpr double kMostPpm = 300;
constexpr double kMostChange = 1;  // ppm per second
// Natural frequency in rad/s, damped critically. An error of 1 ms then changes the pace by 10 ppm.
constexpr double kFrequency = 0.005;
// Of the lead within a window; what varies by more is followed the more slowly.
constexpr milliseconds kUsualSpread(50);
constexpr double kLeastFrequency = kFrequency / 10;

double Seconds(ClockFollower::Time time) {
  return std::chrono::duration<double>(time).count();
}

double Limited(double value, double most) {
  return std::clamp(value, -most, most);
}

}  // namespace

ClockFollower::Time ClockFollower::Map(Time stream) {
  const Time step = last_stream_ ? stream - *last_stream_ : stream;
  last_stream_ = stream;
  ppm_ += Limited(next_ppm_ - ppm_, kMostChange * Seconds(step));
  played_ns_ += static_cast<double>(step.count()) * (1 - ppm_ * 1e-6);
  return Time(std::llround(played_ns_));
}

void ClockFollower::Arrived(Time due, Time now) {
  const Time lead = due - now;
  if (!window_start_) {
    window_start_ = now;
    least_lead_ = greatest_lead_ = lead;
    return;
  }
  least_lead_ = std::min(least_lead_, lead);
  greatest_lead_ = std::max(greatest_lead_, lead);
  if (now - *window_start_ >= kWindow) {
    CloseWindow(now);
    window_start_.reset();
    held_up_ = false;
  }
}

void ClockFollower::CloseWindow(Time now) {
  if (held_up_) {
    next_ppm_ = drift_ppm_ = 0;
    target_.reset();
  } else if (greatest_lead_ < Time(0)) {
    // Everything came too late: its source has been moved, and so is what follows.
    played_ns_ += static_cast<double>((wanted_lead_ - greatest_lead_).count());
    ++moves_;
    target_.reset();
  } else if (now - *window_start_ < 2 * kWindow) {  // else nothing came for a while
    Follow(greatest_lead_, greatest_lead_ - least_lead_);
  }
}

bool ClockFollower::IsStep(Time change, Time spread) const {
  return change > std::max<Time>(kStep, spread) || -change > std::max<Time>(kStep, spread);
}

void ClockFollower::Follow(Time lead, Time spread) {
  if (!target_) {
    target_ = lead;
    last_error_ = Time(0);
  }
  const Time error = lead - *target_;
  if (const Time change = error - last_error_; IsStep(change, spread)) {
    *target_ += change;
    return;
  }
  last_error_ = error;
  const double share = Seconds(kUsualSpread) / std::max(Seconds(spread), Seconds(kUsualSpread));
  const double frequency = std::max(kFrequency * share, kLeastFrequency);
  const double ppm = Seconds(error) * 1e6;
  drift_ppm_ = Limited(drift_ppm_ + ppm * frequency * frequency * Seconds(kWindow), kMostPpm);
  next_ppm_ = Limited(drift_ppm_ + ppm * 2 * frequency, kMostPpm);
}

}  // namespace ipplay
