// SPDX-License-Identifier: MIT
#include "host/stream/arrival_marks.h"

#include <algorithm>
#include <cmath>

namespace ipplay {

ArrivalMarks::Time ArrivalMarks::Add(const Arrival& arrival) {
  if (!last_ || arrival.offset <= last_->offset) {
    round_start_ = gaps_ == 0 ? time_ : time_ + (time_ - round_start_) / gaps_;
    base_ns_ = arrival.time_ns;
    gaps_ = 0;
  } else {
    ++gaps_;
  }
  const Time due =
      round_start_ + Time(std::llround(static_cast<double>(arrival.time_ns - base_ns_) / speed_));
  time_ = last_ ? std::max(due, time_ + Time(std::int64_t{arrival.missing} + 1)) : due;
  last_ = arrival;
  return time_;
}

}  // namespace ipplay
