// SPDX-License-Identifier: MIT
#include "host/measure/figures/media_delivery_index.h"

#include <cmath>

namespace ipplay::measure {

double MediaDeliveryIndex::BytesPerNs() const {
  if (given_rate_) {
    return *given_rate_;
  }
  if (stated_rate_) {
    return *stated_rate_;
  }
  return steady_ns_ > 0 ? static_cast<double>(steady_bytes_) / static_cast<double>(steady_ns_) : 0;
}

void MediaDeliveryIndex::Start(std::int64_t time_ns) {
  started_ = true;
  last_ns_ = start_ns_ = time_ns;
}

void MediaDeliveryIndex::Take(std::int64_t time_ns, std::uint32_t bytes,
                              std::uint64_t lost_packets) {
  // A mean over a hole would be no rate of the stream.
  const std::int64_t step = time_ns - last_ns_;
  if (lost_packets == 0 && step < kIntervalNs && !level_.IsEmpty()) {
    steady_ns_ += step;
    steady_bytes_ += bytes;
  }
  last_ns_ = time_ns;
  level_.Add(time_ns, interval_bytes_);
  interval_bytes_ += bytes;
  level_.Add(time_ns, interval_bytes_);
  interval_lost_ += lost_packets;
  interval_is_empty_ = false;
}

MediaDeliveryIndex::Interval MediaDeliveryIndex::EndInterval(std::int64_t end_ns) {
  Interval interval{start_ns_, 1, {}, interval_lost_, static_cast<std::uint64_t>(interval_bytes_)};
  if (interval_is_empty_) {
    // So far the buffer has given out what it held for as long as nothing has come.
    interval.delay_factor_ns = static_cast<double>(end_ns - last_ns_);
  } else if (const double rate = BytesPerNs(); rate > 0) {
    interval.delay_factor_ns = level_.Deviation(rate).Spread() / rate;
  }
  if (interval.delay_factor_ns) {
    delay_factors_.Add(static_cast<std::uint64_t>(std::llround(*interval.delay_factor_ns)));
  }
  loss_rates_.Add(interval.lost_packets);
  level_.Clear();
  level_.Add(last_ns_, 0);
  interval_bytes_ = 0;
  interval_lost_ = 0;
  interval_is_empty_ = true;
  start_ns_ = end_ns;
  last_ = interval;
  return interval;
}

// The delay factor grows by a second from one to the next; the mean stands for all but the last.
MediaDeliveryIndex::Interval MediaDeliveryIndex::EndEmptyIntervals(std::int64_t count) {
  const std::int64_t first_ns = start_ns_ + kIntervalNs - last_ns_;
  const std::int64_t last_ns = first_ns + (count - 1) * kIntervalNs;
  delay_factors_.Add(static_cast<std::uint64_t>((first_ns + last_ns - kIntervalNs) / 2),
                     static_cast<std::uint64_t>(count - 1));
  delay_factors_.Add(static_cast<std::uint64_t>(last_ns));
  loss_rates_.Add(0, static_cast<std::uint64_t>(count));
  const Interval interval{start_ns_, count, static_cast<double>(last_ns), 0, 0};
  start_ns_ += count * kIntervalNs;
  last_ = interval;
  return interval;
}

}  // namespace ipplay::measure
