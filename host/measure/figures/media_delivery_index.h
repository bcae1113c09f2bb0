// SPDX-License-Identifier: MIT
// Media Delivery Index, RFC 4445: per second, how deep a receiver's buffer must be (delay factor)
// and how many media packets were missing or out of order (media loss rate).
#pragma once

#include <cstdint>
#include <optional>

#include "host/measure/figures/histogram.h"
#include "host/measure/figures/line_extent.h"

namespace ipplay::measure {

class MediaDeliveryIndex {
 public:
  static constexpr std::int64_t kIntervalNs = 1'000'000'000;

  struct Interval {
    std::int64_t start_ns = 0;
    double delay_factor_ns = 0;
    std::uint64_t lost_packets = 0;
  };

  // `media_bytes_per_ns` is the rate at which the virtual buffer drains; the mean rate of the
  // stream up to the end of an interval where none is given.
  explicit MediaDeliveryIndex(std::optional<double> media_bytes_per_ns)
      : given_rate_(media_bytes_per_ns) {}

  // A datagram with `bytes` of media arrived, and `lost_packets` media packets before it did not
  // or came too late. Returns the interval that ended before this datagram, if one did.
  std::optional<Interval> Add(std::int64_t time_ns, std::uint32_t bytes,
                              std::uint64_t lost_packets);

  // Ends the last interval, which may be a short one. None when it holds nothing.
  std::optional<Interval> Finish();

  // Over the intervals that have ended and held media.
  const Histogram& DelayFactors() const { return delay_factors_; }  // ns
  const Histogram& LossRates() const { return loss_rates_; }        // media packets in a second
  // The last interval that ended.
  const std::optional<Interval>& Last() const { return last_; }

 private:
  double BytesPerNs() const;
  Interval EndInterval();

  std::optional<double> given_rate_;
  // Within the interval: x is the time in ns, y the bytes before and after each arrival. The
  // buffer's depth is the distance from a line that rises with the media rate.
  LineExtent level_;
  std::int64_t start_ns_ = 0;
  std::int64_t interval_bytes_ = 0;
  std::uint64_t interval_lost_ = 0;
  bool started_ = false;
  std::int64_t first_ns_ = 0;
  std::int64_t last_ns_ = 0;
  std::int64_t bytes_ = 0;  // without the first datagram: as many as gaps
  Histogram delay_factors_;
  Histogram loss_rates_;
  std::optional<Interval> last_;
};

}  // namespace ipplay::measure
