// SPDX-License-Identifier: MIT
#include "host/measure/results/clock_text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>

namespace ipplay::measure {
namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;
constexpr std::int64_t kMillisecondNs = 1'000'000;

std::int64_t ToMilliseconds(std::int64_t time_ns) {
  return (time_ns + kMillisecondNs / 2) / kMillisecondNs * kMillisecondNs;
}

std::tm LocalTime(std::int64_t time_ns) {
  return fmt::localtime(static_cast<std::time_t>(time_ns / kSecondNs));
}

}  // namespace

std::string ClockText(std::int64_t time_ns) {
  const std::int64_t rounded = ToMilliseconds(time_ns);
  return fmt::format("{:%H:%M:%S}.{:03}", LocalTime(rounded), rounded % kSecondNs / kMillisecondNs);
}

std::string ShortClockText(std::int64_t time_ns) {
  std::string text = ClockText(time_ns);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') {
    text.pop_back();
  }
  return text;
}

std::string DateText(std::int64_t time_ns) {
  const std::tm local = LocalTime(ToMilliseconds(time_ns));
  return fmt::format("{:%Y-%m-%d} {} {:%Z}", local, ClockText(time_ns), local);
}

std::int64_t MidnightNs(std::int64_t time_ns) {
  const std::tm local = LocalTime(time_ns);
  const std::int64_t second = (local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec;
  return time_ns / kSecondNs * kSecondNs - second * kSecondNs;
}

}  // namespace ipplay::measure
