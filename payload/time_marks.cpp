// SPDX-License-Identifier: MIT
#include "payload/time_marks.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ipplayout {
namespace {

double Slope(const TimeMarks::Mark& from, const TimeMarks::Mark& to) {
  return static_cast<double>((to.time - from.time).count()) /
         static_cast<double>(to.offset - from.offset);
}

constexpr auto kFarthest = static_cast<double>(TimeMarks::kLatest.count());

// Of bytes, negative before the origin.
double Distance(std::uint64_t from, std::uint64_t to) {
  return to >= from ? static_cast<double>(to - from) : -static_cast<double>(from - to);
}

}  // namespace

TimeMarks::Added TimeMarks::Add(const Mark& mark) {
  const platform::MutexLock lock(mutex_);
  if (last_ && (mark.offset <= last_->offset || mark.time < last_->time)) {
    return Added::kNotAhead;
  }
  if (marks_.size() >= kMostMarks) {
    return Added::kFull;
  }
  marks_.push_back(mark);
  last_ = mark;
  added_.fetch_add(1);
  return Added::kDone;
}

void TimeMarks::SetRate(double nanoseconds_per_byte) {
  rate_slope_ = std::min(nanoseconds_per_byte, kFarthest);
  line_ = Line{{}, rate_slope_, std::numeric_limits<std::uint64_t>::max(), true};
}

std::optional<TimeMarks::Mark> TimeMarks::Last() const {
  const platform::MutexLock lock(mutex_);
  return last_;
}

std::optional<double> TimeMarks::MeanRate() const {
  constexpr double kNanosecondsPerSecond = 1e9;
  const platform::MutexLock lock(mutex_);
  double slope = 0;
  if (marks_.size() >= 2) {
    slope = Slope(marks_.front(), marks_.back());
  } else if (rate_slope_ > 0) {
    slope = rate_slope_;
  }
  return slope > 0 ? std::optional(kNanosecondsPerSecond / slope) : std::nullopt;
}

std::optional<TimeMarks::Time> TimeMarks::At(std::uint64_t offset) {
  const bool is_known =
      line_ && (offset <= line_->end || (line_->is_last && added_.load() == seen_));
  if (!is_known) {
    FindLine(offset);
  }
  return OnLine(offset);
}

std::optional<TimeMarks::Time> TimeMarks::OnLine(std::uint64_t offset) const {
  if (!line_) {
    return std::nullopt;
  }
  const double way = line_->slope * Distance(line_->origin.offset, offset);
  const Time time(std::llround(std::clamp(way, -kFarthest, kFarthest)));
  return std::clamp(line_->origin.time + time, -kLatest, kLatest);
}

void TimeMarks::FindLine(std::uint64_t offset) {
  const bool finished = finished_.load();  // first: no mark follows it
  const platform::MutexLock lock(mutex_);
  seen_ = added_.load();
  while (marks_.size() > 2 && marks_[1].offset < offset) {
    marks_.pop_front();
  }
  if (marks_.size() >= 2) {
    const bool is_last = marks_.size() == 2;
    line_ = Line{marks_[0], Slope(marks_[0], marks_[1]), marks_[1].offset, is_last};
  } else if (marks_.size() == 1 && (finished || marks_[0].offset == offset)) {
    line_ = Line{marks_[0], 0, marks_[0].offset, true};
    if (!finished) {
      seen_ = ~std::uint64_t{0};  // holds for this one offset
    }
  } else {
    line_.reset();
  }
}

}  // namespace ipplayout
