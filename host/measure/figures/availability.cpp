// SPDX-License-Identifier: MIT
#include "host/measure/figures/availability.h"

namespace ipplay::measure {
namespace {

// G.826, 4.3: 30 % of errored blocks, or a defect, as which a second without a packet counts.
bool IsSeverelyErrored(const Availability::Second& second) {
  const std::uint64_t all = second.received_packets + second.lost_packets;
  return second.received_packets == 0 || second.lost_packets * 10 >= all * 3;
}

}  // namespace

void Availability::Add(const Second& second, std::uint64_t count) {
  const bool severely = IsSeverelyErrored(second);
  const bool errored = severely || second.lost_packets > 0 || second.has_other_errors;
  for (; count > 0 && (severely == is_available_ || turning_ > 0); --count) {
    AddOne(errored, severely);
  }
  // The rest turns nothing.
  Count(errored, severely, count);
}

void Availability::Count(bool errored, bool severely, std::uint64_t seconds) {
  seconds_ += seconds;
  if (is_available_) {
    errored_ += errored ? seconds : 0;
    severely_errored_ += severely ? seconds : 0;
  } else {
    unavailable_ += seconds;
  }
}

void Availability::AddOne(bool errored, bool severely) {
  Count(errored, severely, 1);
  if (severely != is_available_) {
    turning_ = turning_errored_ = 0;
    return;
  }
  ++turning_;
  turning_errored_ += errored ? 1 : 0;
  if (turning_ == kSecondsToTurn) {
    Turn();
  }
}

void Availability::Turn() {
  if (is_available_) {
    unavailable_ += turning_;
    errored_ -= turning_;
    severely_errored_ -= turning_;
  } else {
    unavailable_ -= turning_;
    errored_ += turning_errored_;
  }
  is_available_ = !is_available_;
  turning_ = turning_errored_ = 0;
}

}  // namespace ipplay::measure
