// SPDX-License-Identifier: MIT
#include "host/play/time_line.h"

#include <algorithm>

namespace ipplay {

TimeLine::TimeLine(const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) {
    Add(entry);
  }
}

void TimeLine::Add(Entry entry) {
  // In front of the first entry that is not later, so that it is taken after its equals.
  const auto place = std::find_if(entries_.begin(), entries_.end(), [&entry](const Entry& other) {
    return other.first <= entry.first;
  });
  entries_.insert(place, entry);
}

std::optional<std::chrono::nanoseconds> TimeLine::NextTime() const {
  if (entries_.empty()) {
    return std::nullopt;
  }
  return entries_.back().first;
}

std::optional<Action> TimeLine::TakeDue(std::chrono::nanoseconds now) {
  if (entries_.empty() || entries_.back().first > now) {
    return std::nullopt;
  }
  const Action action = entries_.back().second;
  entries_.pop_back();
  return action;
}

}  // namespace ipplay
