// SPDX-License-Identifier: MIT
#include "host/measure/figures/media_delivery_index.h"

#include <algorithm>
#include <cmath>

namespace ipplay::measure {

double MediaDeliveryIndex::BytesPerNs() const {
  if (given_rate_) {
    return *given_rate_;
  }
  if (last_ns_ <= first_ns_) {
    return 0;
  }
  return static_cast<double>(bytes_) / static_cast<double>(last_ns_ - first_ns_);
}

std::optional<MediaDeliveryIndex::Interval> MediaDeliveryIndex::Add(std::int64_t time_ns,
                                                                    std::uint32_t bytes,
                                                                    std::uint64_t lost_packets) {
  std::optional<Interval> ended;
  if (!started_) {
    started_ = true;
    first_ns_ = last_ns_ = start_ns_ = time_ns;
  } else {
    time_ns = std::max(time_ns, last_ns_);
    if (time_ns - start_ns_ >= kIntervalNs) {
      ended = EndInterval();
      // Seconds without any media are skipped: the delay factor is taken at arrivals.
      start_ns_ += (time_ns - start_ns_) / kIntervalNs * kIntervalNs;
    }
    bytes_ += bytes;
  }
  last_ns_ = time_ns;
  level_.Add(time_ns, interval_bytes_);
  interval_bytes_ += bytes;
  level_.Add(time_ns, interval_bytes_);
  interval_lost_ += lost_packets;
  return ended;
}

std::optional<MediaDeliveryIndex::Interval> MediaDeliveryIndex::Finish() {
  if (level_.IsEmpty()) {
    return std::nullopt;
  }
  return EndInterval();
}

MediaDeliveryIndex::Interval MediaDeliveryIndex::EndInterval() {
  Interval interval{start_ns_, 0, interval_lost_};
  const double rate = BytesPerNs();
  if (rate > 0) {
    interval.delay_factor_ns = level_.Deviation(rate).Spread() / rate;
  }
  delay_factors_.Add(static_cast<std::uint64_t>(std::llround(interval.delay_factor_ns)));
  loss_rates_.Add(interval.lost_packets);
  level_.Clear();
  interval_bytes_ = 0;
  interval_lost_ = 0;
  last_ = interval;
  return interval;
}

}  // namespace ipplay::measure
