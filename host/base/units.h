// SPDX-License-Identifier: MIT
// Numbers with units as users write them on the command line and as ipplay prints them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ipplay {

// Bits per second, above 0: a decimal number with an optional k, M or G (factors of 1000), as in
// "9.75M", "38810k" or "10000000", and nothing else.
std::optional<double> ParseBitRate(std::string_view text);

// A length of time, 0 or more: decimal numbers with h, m (or min), s, ms, us or ns, added up, as in
// "1h30m", "2.5s" or "50us". A single bare number counts seconds.
std::optional<std::chrono::nanoseconds> ParseDuration(std::string_view text);

// Parts per million with a sign, with or without the unit: "20ppm", "-4.6".
std::optional<double> ParsePpm(std::string_view text);

// How many times as much: "2", "0.5x".
std::optional<double> ParseFactor(std::string_view text);

// "20%", "0.5%": percent, 0 or more; the unit is needed.
std::optional<double> ParsePercent(std::string_view text);

// "9.75 Mbit/s"; at most six significant digits.
std::string FormatBitRate(double bits_per_second);

// "850 ns", "12.5 us", "250 ms", "9.83 s", "3 min 05 s", "1 h 02 min 03 s".
std::string FormatDuration(std::chrono::nanoseconds duration);
// The same of a mean and the like, which need not be whole.
std::string FormatNanoseconds(double ns);

// "1,234,567"
std::string FormatCount(std::uint64_t count);
// "1 frame", "1,000 frames".
std::string FormatCount(std::uint64_t count, std::string_view thing);

// "512 bytes", "1.5 MB"; factors of 1000.
std::string FormatBytes(std::uint64_t bytes);

}  // namespace ipplay
