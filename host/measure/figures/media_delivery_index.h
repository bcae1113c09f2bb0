// SPDX-License-Identifier: MIT
// Media Delivery Index, RFC 4445: per second, how deep a receiver's buffer must be (delay factor)
// and how many media packets were missing or out of order (media loss rate).
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "host/measure/figures/histogram.h"
#include "host/measure/figures/line_extent.h"

namespace ipplay::measure {

class MediaDeliveryIndex {
 public:
  static constexpr std::int64_t kIntervalNs = 1'000'000'000;
  // So many empty intervals in a row are reported one by one, and those behind them as one.
  static constexpr std::int64_t kMostOneByOne = 600;

  struct Interval {
    std::int64_t start_ns = 0;
    std::int64_t count = 1;  // of empty ones in a row; the figures are the last one's
    std::optional<double> delay_factor_ns{};  // none while the rate is not known
    std::uint64_t lost_packets = 0;
    std::uint64_t bytes = 0;
  };

  // `media_bytes_per_ns` is the rate at which the virtual buffer drains.
  explicit MediaDeliveryIndex(std::optional<double> media_bytes_per_ns)
      : given_rate_(media_bytes_per_ns) {}

  // The rate that the stream itself states; used while none is given.
  void StateRate(double bytes_per_ns) { stated_rate_ = bytes_per_ns; }

  // A datagram with `bytes` of media arrived, and `lost_packets` media packets before it did not
  // or came too late. Calls on_interval(const Interval&) for each interval that ended before it,
  // the empty ones included.
  template <typename OnInterval>
  void Add(std::int64_t time_ns, std::uint32_t bytes, std::uint64_t lost_packets,
           OnInterval&& on_interval) {
    if (!started_) {
      Start(time_ns);
    }
    time_ns = std::max(time_ns, last_ns_);
    EndIntervalsBefore(time_ns, on_interval);
    Take(time_ns, bytes, lost_packets);
  }

  // Ends the last interval, which may be a short one; the buffer drains up to `end_ns`.
  template <typename OnInterval>
  void Finish(std::int64_t end_ns, OnInterval&& on_interval) {
    if (!started_) {
      return;
    }
    end_ns = std::max(end_ns, last_ns_);
    EndIntervalsBefore(end_ns, on_interval);
    if (!interval_is_empty_ || end_ns > start_ns_) {
      on_interval(EndInterval(end_ns));
    }
    started_ = false;
  }

  // Over the intervals that have ended, empty ones included.
  const Histogram& DelayFactors() const { return delay_factors_; }  // ns; of those that have one
  // All have one.
  bool HasAllDelayFactors() const { return delay_factors_.Count() == loss_rates_.Count(); }
  const Histogram& LossRates() const { return loss_rates_; }  // media packets in a second
  // The last interval that ended.
  const std::optional<Interval>& Last() const { return last_; }
  // The rate at which the buffer drains; 0 while it is not known.
  double BytesPerNs() const;

 private:
  template <typename OnInterval>
  void EndIntervalsBefore(std::int64_t time_ns, OnInterval&& on_interval) {
    for (std::int64_t ended = 0; ended < kMostOneByOne && time_ns - start_ns_ >= kIntervalNs;
         ++ended) {
      on_interval(EndInterval(start_ns_ + kIntervalNs));
    }
    if (const std::int64_t rest = (time_ns - start_ns_) / kIntervalNs; rest > 0) {
      on_interval(EndEmptyIntervals(rest));
    }
  }
  void Start(std::int64_t time_ns);
  void Take(std::int64_t time_ns, std::uint32_t bytes, std::uint64_t lost_packets);
  Interval EndInterval(std::int64_t end_ns);
  Interval EndEmptyIntervals(std::int64_t count);

  std::optional<double> given_rate_;
  std::optional<double> stated_rate_;
  // x is the time in ns, y the bytes before and after each arrival, from just after the last
  // packet of the interval before (3.1). The buffer's depth is the distance from a line that rises
  // with the media rate.
  LineExtent level_;
  std::int64_t start_ns_ = 0;
  std::int64_t interval_bytes_ = 0;
  std::uint64_t interval_lost_ = 0;
  bool started_ = false;
  bool interval_is_empty_ = true;
  std::int64_t last_ns_ = 0;
  // Of the steps from one datagram to the next between which nothing is missing.
  std::int64_t steady_ns_ = 0;
  std::int64_t steady_bytes_ = 0;
  Histogram delay_factors_;
  Histogram loss_rates_;
  std::optional<Interval> last_;
};

}  // namespace ipplay::measure
