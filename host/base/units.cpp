// SPDX-License-Identifier: MIT
#include "host/base/units.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace ipplay {
namespace {

struct Unit {
  std::string_view name;
  double factor;
};

// Takes a decimal number without exponent off the front of `text`; a sign is not a number's part.
std::optional<double> TakeNumber(std::string_view& text) {
  double value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
  if (error != std::errc{} || text.front() == '-' || !std::isfinite(value)) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return value;
}

// Takes the longest run of letters off the front of `text`.
std::string_view TakeLetters(std::string_view& text) {
  std::size_t length = 0;
  while (length < text.size() && ((text[length] >= 'a' && text[length] <= 'z') ||
                                  (text[length] >= 'A' && text[length] <= 'Z'))) {
    ++length;
  }
  const std::string_view letters = text.substr(0, length);
  text.remove_prefix(length);
  return letters;
}

template <std::size_t N>
std::optional<double> FactorOf(const std::array<Unit, N>& units, std::string_view name) {
  for (const Unit& unit : units) {
    if (unit.name == name) {
      return unit.factor;
    }
  }
  return std::nullopt;
}

constexpr std::array<Unit, 5> kRateUnits{{{"", 1}, {"k", 1e3}, {"K", 1e3}, {"M", 1e6}, {"G", 1e9}}};
constexpr std::array<Unit, 7> kTimeUnits{
    {{"h", 3600e9}, {"min", 60e9}, {"m", 60e9}, {"s", 1e9}, {"ms", 1e6}, {"us", 1e3}, {"ns", 1}}};

// The number in the largest of the decimal units that leaves at least 1 in front of the point.
std::string FormatScaled(double value, const std::array<std::string_view, 4>& names) {
  std::size_t step = 0;
  // 999999.6 of a unit prints as 1e+06 with six digits, so the next unit starts a little earlier.
  while (step + 1 < names.size() && value >= 999.9995) {
    value /= 1000;
    ++step;
  }
  return fmt::format("{:.6g} {}", value, names[step]);
}

}  // namespace

std::optional<double> ParseBitRate(std::string_view text) {
  const auto number = TakeNumber(text);
  const auto factor = FactorOf(kRateUnits, TakeLetters(text));
  if (!number || !factor || !text.empty() || *number <= 0) {
    return std::nullopt;
  }
  return *number * *factor;
}

std::optional<std::chrono::nanoseconds> ParseDuration(std::string_view text) {
  double total = 0;
  bool first = true;
  do {
    const auto number = TakeNumber(text);
    if (!number) {
      return std::nullopt;
    }
    const std::string_view unit = TakeLetters(text);
    const auto factor =
        unit.empty() && first && text.empty() ? std::optional(1e9) : FactorOf(kTimeUnits, unit);
    if (!factor) {
      return std::nullopt;
    }
    total += *number * *factor;
    first = false;
  } while (!text.empty());
  if (total >= static_cast<double>(std::numeric_limits<std::int64_t>::max())) {
    return std::nullopt;
  }
  return std::chrono::nanoseconds(std::llround(total));
}

std::optional<double> ParsePpm(std::string_view text) {
  const bool negative = !text.empty() && text.front() == '-';
  if (negative || (!text.empty() && text.front() == '+')) {
    text.remove_prefix(1);
  }
  const auto number = TakeNumber(text);
  if (!number || !(text.empty() || text == "ppm")) {
    return std::nullopt;
  }
  return negative ? -*number : *number;
}

std::optional<double> ParseFactor(std::string_view text) {
  const auto number = TakeNumber(text);
  return text.empty() || text == "x" ? number : std::nullopt;
}

std::optional<double> ParsePercent(std::string_view text) {
  const auto number = TakeNumber(text);
  if (text != "%") {
    return std::nullopt;
  }
  return number;
}

std::string FormatBitRate(double bits_per_second) {
  return FormatScaled(bits_per_second, {"bit/s", "kbit/s", "Mbit/s", "Gbit/s"});
}

std::string FormatNanoseconds(double ns) {
  return FormatDuration(std::chrono::nanoseconds(std::llround(ns)));
}

std::string FormatDuration(std::chrono::nanoseconds duration) {
  const auto ns = static_cast<double>(duration.count());
  if (std::abs(ns) < 1e3) {
    return fmt::format("{} ns", duration.count());
  }
  if (std::abs(ns) < 999.95e3) {
    return fmt::format("{:.4g} us", ns / 1e3);
  }
  if (std::abs(ns) < 999.95e6) {
    return fmt::format("{:.4g} ms", ns / 1e6);
  }
  if (std::abs(ns) < 59.995e9) {
    return fmt::format("{:.4g} s", ns / 1e9);
  }
  const long long seconds = std::llround(ns / 1e9);
  if (seconds < 3600) {
    return fmt::format("{} min {:02} s", seconds / 60, seconds % 60);
  }
  return fmt::format("{} h {:02} min {:02} s", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::string FormatCount(std::uint64_t count) {
  return fmt::format("{}", fmt::group_digits(count));
}

std::string FormatCount(std::uint64_t count, std::string_view thing) {
  return fmt::format("{} {}{}", FormatCount(count), thing, count == 1 ? "" : "s");
}

std::string FormatBytes(std::uint64_t bytes) {
  return FormatScaled(static_cast<double>(bytes), {"bytes", "kB", "MB", "GB"});
}

}  // namespace ipplay
