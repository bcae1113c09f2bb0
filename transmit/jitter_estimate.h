// SPDX-License-Identifier: MIT
// Running estimate of how uneven a stream is, over the times at which its frames are to leave.
#pragma once

#include <chrono>

#include "transmit/seconds.h"

namespace ipplayout {

// In the style of RFC 3550 section 6.4.1.
class JitterEstimate {
 public:
  // A frame is to leave at `time`, since any fixed point.
  void Add(Seconds time) {
    // Of the running estimate that a new deviation replaces.
    constexpr double kGain = 1.0 / 16;
    const Seconds interval = time - previous_time_;
    const Seconds deviation = std::chrono::abs(interval - previous_interval_);
    estimate_ += (deviation - estimate_) * kGain;
    previous_time_ = time;
    previous_interval_ = interval;
  }

  Seconds Value() const { return estimate_; }

 private:
  Seconds previous_time_{0};
  Seconds previous_interval_{0};
  Seconds estimate_{0};
};

}  // namespace ipplayout
