// SPDX-License-Identifier: MIT
#include "payload/run_changes.h"

#include <algorithm>
#include <cmath>

#include "payload/time_marks.h"

namespace ipplayout {

bool RunChanges::Add(const RunChange& change) {
  const platform::MutexLock lock(mutex_);
  if (changes_.size() >= kMost) {
    return false;
  }
  const auto place =
      std::upper_bound(changes_.begin(), changes_.end(), change,
                       [](const RunChange& a, const RunChange& b) { return a.at_ns < b.at_ns; });
  changes_.insert(place, change);
  next_ns_.store(changes_.front().at_ns, std::memory_order_relaxed);
  return true;
}

std::optional<RunChange> RunChanges::TakeDue(std::chrono::nanoseconds due) {
  if (next_ns_.load(std::memory_order_relaxed) > due.count()) {
    return std::nullopt;
  }
  const platform::MutexLock lock(mutex_);
  std::optional<RunChange> last;
  while (!changes_.empty() && changes_.front().at_ns <= due.count()) {
    last = changes_.front();
    changes_.pop_front();
  }
  next_ns_.store(changes_.empty() ? kNone : changes_.front().at_ns, std::memory_order_relaxed);
  return last;
}

SpeedLine::Time SpeedLine::Map(Time scheduled) const {
  const Time way = scheduled - from_;
  if (speed_ == 1) {
    return to_ + way;
  }
  constexpr double kFarthest = static_cast<double>(TimeMarks::kLatest.count());
  const double scaled =
      std::clamp(static_cast<double>(way.count()) / speed_, -kFarthest, kFarthest);
  return std::clamp(to_ + Time(std::llround(scaled)), -TimeMarks::kLatest, TimeMarks::kLatest);
}

void SpeedLine::Bend(Time scheduled, double speed) {
  to_ = Map(scheduled);
  from_ = scheduled;
  speed_ = speed;
}

}  // namespace ipplayout
