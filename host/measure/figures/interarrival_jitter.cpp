// SPDX-License-Identifier: MIT
#include "host/measure/figures/interarrival_jitter.h"

#include <algorithm>
#include <cmath>

namespace ipplay::measure {

void InterarrivalJitter::Add(std::int64_t arrival_ns, std::uint32_t timestamp) {
  if (packets_++ > 0) {
    // The difference is taken modulo 2^32 first, so that time stamps may wrap.
    const auto ticks = static_cast<std::int32_t>(timestamp - last_timestamp_);
    moved_ = moved_ || ticks != 0;
    const double transit_change =
        static_cast<double>(arrival_ns - last_arrival_ns_) - ticks * ns_per_tick_;
    jitter_ns_ += (std::abs(transit_change) - jitter_ns_) / 16;
    sum_ns_ += jitter_ns_;
    max_ns_ = std::max(max_ns_, jitter_ns_);
  }
  last_arrival_ns_ = arrival_ns;
  last_timestamp_ = timestamp;
}

}  // namespace ipplay::measure
