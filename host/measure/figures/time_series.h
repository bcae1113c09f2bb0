// SPDX-License-Identifier: MIT
// Values over time in a bounded number of points: when they run out, neighbours are merged and
// each point covers twice the time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ipplay::measure {

// Value has Merge(const Value&), which takes in what a later point holds.
template <typename Value>
class TimeSeries {
 public:
  static constexpr std::size_t kMaxPoints = 600;

  // Until the first points run out, which then merge to `interval_ns`, each covers `finest_ns`:
  // what is short is seen more finely. The one is the other times a power of two.
  TimeSeries(std::int64_t interval_ns, std::int64_t finest_ns)
      : usual_ns_(interval_ns), interval_ns_(finest_ns) {}
  explicit TimeSeries(std::int64_t interval_ns) : TimeSeries(interval_ns, interval_ns) {}

  // The value that `time_ns` belongs to. Times before the last point's count for the last point.
  Value& At(std::int64_t time_ns) {
    if (points_.empty()) {
      start_ns_ = time_ns;
      points_.emplace_back();
    }
    if (IndexOf(time_ns) >= kMaxPoints) {
      do {
        Halve();
      } while (IndexOf(time_ns) >= kMaxPoints || interval_ns_ < usual_ns_);
    }
    const std::size_t index = IndexOf(time_ns);
    if (index >= points_.size()) {
      points_.resize(index + 1);
    }
    return index + 1 < points_.size() ? points_.back() : points_[index];
  }

  std::int64_t StartNs() const { return start_ns_; }
  std::int64_t IntervalNs() const { return interval_ns_; }
  // Point i covers the interval that begins i intervals after the start.
  const std::vector<Value>& Points() const { return points_; }

 private:
  std::size_t IndexOf(std::int64_t time_ns) const {
    return time_ns <= start_ns_ ? 0
                                : static_cast<std::size_t>((time_ns - start_ns_) / interval_ns_);
  }

  void Halve() {
    for (std::size_t i = 0; i < points_.size(); i += 2) {
      Value merged = points_[i];
      if (i + 1 < points_.size()) {
        merged.Merge(points_[i + 1]);
      }
      points_[i / 2] = merged;
    }
    points_.resize((points_.size() + 1) / 2);
    interval_ns_ *= 2;
  }

  std::int64_t usual_ns_;
  std::int64_t interval_ns_;
  std::int64_t start_ns_ = 0;
  std::vector<Value> points_;
};

}  // namespace ipplay::measure
