// SPDX-License-Identifier: MIT
// Shortest, mean and longest time between the things of one kind.
#pragma once

#include <algorithm>
#include <cstdint>

namespace ipplay::measure {

struct IntervalFigures {
  std::uint64_t count = 0;
  std::int64_t min_ns = 0;
  std::int64_t max_ns = 0;
  double sum_ns = 0;  // times that go back and forth add up beyond 64 bits

  void Add(std::int64_t interval_ns) {
    min_ns = count == 0 ? interval_ns : std::min(min_ns, interval_ns);
    max_ns = std::max(max_ns, interval_ns);
    sum_ns += static_cast<double>(interval_ns);
    ++count;
  }
  double MeanNs() const { return count == 0 ? 0 : sum_ns / static_cast<double>(count); }
};

}  // namespace ipplay::measure
