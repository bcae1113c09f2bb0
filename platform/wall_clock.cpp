// SPDX-License-Identifier: MIT
#include "platform/wall_clock.h"

#include <time.h>

#include <algorithm>

#include "platform/clock.h"

namespace ipplayout::platform {
namespace {

using std::chrono::nanoseconds;

// A reading that was interrupted tells little: another one is cheap.
constexpr nanoseconds kNarrow = std::chrono::microseconds(1);
constexpr int kMostReadings = 4;

nanoseconds WallNow() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

}  // namespace

bool WallClock::Compare() {
  bool set = false;
  nanoseconds width = nanoseconds::max();
  for (int reading = 0; reading < kMostReadings && width > kNarrow; ++reading) {
    const nanoseconds before = MonotonicNow();
    const nanoseconds wall = WallNow();
    const nanoseconds after = MonotonicNow();
    set |= Observe(before, wall, after);
    width = after - before;
  }
  return set;
}

bool WallClock::Observe(nanoseconds before, nanoseconds wall, nanoseconds after) {
  const nanoseconds least = compared_ ? std::max(least_, wall - after) : wall - after;
  const nanoseconds most = compared_ ? std::min(most_, wall - before) : wall - before;
  const bool set = least > most;
  least_ = set ? wall - after : least;
  most_ = set ? wall - before : most;
  compared_ = true;
  return set;
}

}  // namespace ipplayout::platform
