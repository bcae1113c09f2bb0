// SPDX-License-Identifier: MIT
#include "host/base/wall_clock.h"

#include <gtest/gtest.h>

namespace ipplay {
namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds kReading{20};
constexpr nanoseconds kAhead = std::chrono::hours(1);

// A clock on which each reading takes a moment, and some of the first are held up for long.
nanoseconds now;
int readings_held_up;

nanoseconds Monotonic() {
  now += kReading + (readings_held_up-- > 0 ? std::chrono::milliseconds(70) : nanoseconds(0));
  return now;
}

nanoseconds Wall() {
  return Monotonic() + kAhead;
}

TEST(WallClock, IsComparedByReadingsThatNothingHeldUp) {
  for (const int held_up : {0, 1, 2, 3, 4, 9}) {
    readings_held_up = held_up;
    EXPECT_EQ(WallClockOffset(Monotonic, Wall), kAhead) << held_up;
  }
}

}  // namespace
}  // namespace ipplay
