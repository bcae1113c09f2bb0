// SPDX-License-Identifier: MIT
// The capture's time in words, by the clock and the zone of this machine unless it says otherwise.
#pragma once

#include <cstdint>
#include <string>

namespace ipplay::measure {

// Time of day of `time_ns` (since 1970), to the millisecond.
std::string ClockText(std::int64_t time_ns);

// The same without trailing zeros.
std::string ShortClockText(std::int64_t time_ns);

// Date, time of day and zone.
std::string DateText(std::int64_t time_ns);

// The midnight before `time_ns`.
std::int64_t MidnightNs(std::int64_t time_ns);

}  // namespace ipplay::measure
