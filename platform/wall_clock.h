// SPDX-License-Identifier: MIT
// The wall clock (CLOCK_REALTIME) against the monotonic one.
#pragma once

#include <chrono>

namespace ipplayout::platform {

// Turns times of the wall clock into monotonic ones. Both clocks are slewed alike, so their
// difference changes only where the wall clock is set. Every comparison narrows the range that it
// lies in; one that contradicts the range shows that the clock was set. Belongs to one thread.
class WallClock {
 public:
  // Compares the clocks. True when the wall clock turns out to have been set since the last
  // comparison: times that it gave between the two cannot be told.
  bool Compare();
  // One reading of the wall clock between two of the monotonic one; as Compare.
  bool Observe(std::chrono::nanoseconds before, std::chrono::nanoseconds wall,
               std::chrono::nanoseconds after);

  // After the first comparison.
  std::chrono::nanoseconds ToMonotonic(std::chrono::nanoseconds wall) const {
    return wall - (least_ + (most_ - least_) / 2);
  }

 private:
  // Bounds of wall clock minus monotonic clock.
  std::chrono::nanoseconds least_{0};
  std::chrono::nanoseconds most_{0};
  bool compared_ = false;
};

}  // namespace ipplayout::platform
