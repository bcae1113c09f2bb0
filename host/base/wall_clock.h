// SPDX-License-Identifier: MIT
// The system's clock of the time of day.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ipplay {

// Since 1970.
std::chrono::nanoseconds WallClockNow();

// How far that is ahead of the monotonic clock, on which the library's times are. Converts a time
// of one clock to the other; the difference of two readings would have in it whatever stopped the
// thread between them.
std::chrono::nanoseconds WallClockOffset();

// The same of given clocks.
using ClockReading = std::chrono::nanoseconds (*)();
std::chrono::nanoseconds WallClockOffset(ClockReading monotonic, ClockReading wall);

// "+5s" from now on, or a date and a time with its zone (RFC 3339), "2026-01-31T12:00:00Z".
std::optional<std::chrono::nanoseconds> ParseWallClock(std::string_view text);

// UTC by ISO 8601, "2026-01-31T12:00:00.000000000Z"; of nanoseconds since 1970.
std::string UtcText(std::int64_t time_ns);

}  // namespace ipplay
