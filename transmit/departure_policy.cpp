// SPDX-License-Identifier: MIT
#include "transmit/departure_policy.h"

#include <algorithm>

namespace ipplayout {

DeparturePolicy::Time DeparturePolicy::Plan(Time due) const {
  const Time place = Place(due);
  if (rule_.what != WhenLate::kBounded || !any_) {
    return place;
  }
  // Behind a frame that is behind its place, no sooner than the faster rate allows.
  const std::chrono::duration<double, std::nano> gap = due - last_due_;
  return std::max(place, last_departure_ + std::chrono::duration_cast<Time>(gap / rule_.catch_up));
}

bool DeparturePolicy::Settle(Time due, Time planned, Time now) {
  // What the clock and the wake-up are late by does not move a plan: else nothing would catch up.
  const Time late = now - planned;
  if (late > rule_.tolerance) {
    if (rule_.what == WhenLate::kDrop) {
      return false;
    }
    if (rule_.what == WhenLate::kShift) {
      shift_ += late;
    }
    planned = now;
  }
  any_ = true;
  last_due_ = due;
  last_departure_ = planned;
  return true;
}

}  // namespace ipplayout
