// SPDX-License-Identifier: MIT
// Actions at given times of a playout.
#pragma once

#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "host/play/play_values.h"

namespace ipplay {

class TimeLine {
 public:
  using Entry = std::pair<std::chrono::nanoseconds, Action>;  // time since the start

  // In any order; entries with the same time are taken in the order given.
  explicit TimeLine(const std::vector<Entry>& entries);

  void Add(Entry entry);
  // The time of the next entry.
  std::optional<std::chrono::nanoseconds> NextTime() const;
  // The next entry that is due at `now`, taken off the line.
  std::optional<Action> TakeDue(std::chrono::nanoseconds now);

 private:
  std::vector<Entry> entries_;  // latest first
};

}  // namespace ipplay
