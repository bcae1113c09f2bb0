// SPDX-License-Identifier: MIT
// Running estimate of how uneven a stream is, over the times at which its frames are to leave.
#pragma once

#include <cmath>

namespace ipplayout {

// In the style of RFC 3550 section 6.4.1.
class JitterEstimate {
 public:
  // A frame is to leave at `time`, in seconds since any fixed point.
  void Add(double time) {
    // Of the running estimate that a new deviation replaces.
    constexpr double kGain = 1.0 / 16;
    const double interval = time - previous_time_;
    const double deviation = std::abs(interval - previous_interval_);
    seconds_ += (deviation - seconds_) * kGain;
    previous_time_ = time;
    previous_interval_ = interval;
  }

  double Seconds() const { return seconds_; }

 private:
  double previous_time_ = 0;
  double previous_interval_ = 0;
  double seconds_ = 0;
};

}  // namespace ipplayout
