// SPDX-License-Identifier: MIT
#include "host/base/wall_clock.h"

#define TOML_EXCEPTIONS 0
#include <fmt/chrono.h>
#include <toml++/toml.h>

#include "host/base/units.h"

namespace ipplay {

using std::chrono::nanoseconds;

std::chrono::nanoseconds WallClockNow() {
  return std::chrono::system_clock::now().time_since_epoch();
}

std::chrono::nanoseconds WallClockOffset() {
  return WallClockOffset(
      [] { return nanoseconds(std::chrono::steady_clock::now().time_since_epoch()); },
      WallClockNow);
}

std::chrono::nanoseconds WallClockOffset(ClockReading monotonic, ClockReading wall) {
  // Nobody has stopped a reading that is as narrow as this. Of others the narrowest one counts.
  constexpr nanoseconds kNarrow = std::chrono::microseconds(1);
  constexpr int kMostReadings = 10;
  nanoseconds offset{0};
  nanoseconds narrowest = nanoseconds::max();
  for (int reading = 0; reading < kMostReadings && narrowest > kNarrow; ++reading) {
    const nanoseconds before = monotonic();
    const nanoseconds now = wall();
    const nanoseconds width = monotonic() - before;
    if (width < narrowest) {
      narrowest = width;
      offset = now - before - width / 2;
    }
  }
  return offset;
}

// TOML has such times, and its parser knows how many days a month has.
std::optional<std::chrono::nanoseconds> ParseWallClock(std::string_view text) {
  if (text.starts_with('+')) {
    const auto delay = ParseDuration(text.substr(1));
    const nanoseconds now = WallClockNow();
    return delay && *delay < nanoseconds::max() - now ? std::optional(now + *delay) : std::nullopt;
  }
  const auto parsed = toml::parse("t = " + std::string(text));
  const auto* const point = parsed ? parsed.table()["t"].as_date_time() : nullptr;
  if (point == nullptr || !point->get().offset) {
    return std::nullopt;
  }
  const toml::date_time& at = point->get();
  const std::chrono::sys_days day{std::chrono::year(at.date.year) /
                                  std::chrono::month(at.date.month) /
                                  std::chrono::day(at.date.day)};
  constexpr std::chrono::year kFirst{1970}, kLast{2261};  // within 64 bits of nanoseconds
  if (day < std::chrono::sys_days{kFirst / 1 / 1} || day > std::chrono::sys_days{kLast / 12 / 31}) {
    return std::nullopt;
  }
  return nanoseconds(day.time_since_epoch()) + std::chrono::hours(at.time.hour) +
         std::chrono::minutes(at.time.minute - at.offset->minutes) +
         std::chrono::seconds(at.time.second) + nanoseconds(at.time.nanosecond);
}

std::string UtcText(std::int64_t time_ns) {
  constexpr std::int64_t kSecondNs = 1'000'000'000;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:09}Z",
                     fmt::gmtime(static_cast<std::time_t>(time_ns / kSecondNs)),
                     time_ns % kSecondNs);
}

}  // namespace ipplay
