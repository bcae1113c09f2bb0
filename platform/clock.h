// SPDX-License-Identifier: MIT
// The monotonic clock that everything in the library is timed by.
#pragma once

#include <time.h>

#include <chrono>
#include <cstdint>

namespace ipplayout::platform {

// Time since an arbitrary origin, never set back (CLOCK_MONOTONIC).
std::chrono::nanoseconds MonotonicNow() noexcept;

// Milliseconds since the same origin; seeds the pseudo-random generator and bounds receive waits.
std::uint64_t MonotonicMilliseconds();

// A span or a time as system calls take it.
timespec ToTimespec(std::chrono::nanoseconds time);

}  // namespace ipplayout::platform
