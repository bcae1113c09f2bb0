// SPDX-License-Identifier: MIT
#include "transmit/batch_pacer.h"

#include <algorithm>

namespace ipplayout {

BatchPacer::Pace BatchPacer::Next(Seconds elapsed, Seconds jitter_sum) {
  if (burst_) {
    return NextBurst(elapsed, jitter_sum);
  }
  return frames_ > 1 ? NextSpaced(elapsed) : NextSingle(elapsed);
}

BatchPacer::Pace BatchPacer::NextSingle(Seconds elapsed) {
  const Seconds spent = elapsed - budget_;
  budget_ = packet_time_ - spent;
  return {budget_, std::nullopt, std::max(spent, packet_time_)};
}

BatchPacer::Pace BatchPacer::NextSpaced(Seconds elapsed) {
  const double gaps = frames_ - 1;
  const Seconds corrected_gap = packet_time_ - correction_;
  const Seconds idle = elapsed - gaps * corrected_gap - budget_;
  if (idle > corrected_gap) {
    // Late: sent at once, and the gaps of a coming batch are shortened by what is missing.
    budget_ = Seconds(0);
    correction_ = (idle - packet_time_) / gaps;
  } else {
    // On time. The gaps within a batch made up for what was missing, and the gap behind it, which
    // is as short, for one correction too much. The gaps of a coming batch give that back, and the
    // gap behind it again one share too much: corrections fade away.
    budget_ = corrected_gap - idle;
    correction_ = -correction_ / gaps;
  }
  return {budget_, correction_, corrected_gap};
}

BatchPacer::Pace BatchPacer::NextBurst(Seconds elapsed, Seconds jitter_sum) {
  const Seconds burst_time = frames_ * packet_time_;
  budget_ = burst_time - (elapsed - budget_);
  return {budget_, std::nullopt, burst_time - jitter_sum};
}

}  // namespace ipplayout
