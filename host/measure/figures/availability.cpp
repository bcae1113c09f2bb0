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

void Availability::Add(const Second& second) {
  const bool severely = IsSeverelyErrored(second);
  const bool errored = severely || second.lost_packets > 0 || second.has_other_errors;
  ++seconds_;
  if (is_available_) {
    errored_ += errored ? 1 : 0;
    severely_errored_ += severely ? 1 : 0;
  } else {
    ++unavailable_;
  }
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
