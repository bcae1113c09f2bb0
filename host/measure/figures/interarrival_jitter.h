// SPDX-License-Identifier: MIT
// Interarrival jitter, RFC 3550, 6.4.1 and A.8.
#pragma once

#include <cstdint>

namespace ipplay::measure {

class InterarrivalJitter {
 public:
  explicit InterarrivalJitter(double clock_rate) : ns_per_tick_(1e9 / clock_rate) {}

  void Add(std::int64_t arrival_ns, std::uint32_t timestamp);

  // Whether the time stamps ever moved. Where they stand still, as in the correction flows of
  // SMPTE ST 2022-1, there is no sender's clock and no jitter against it.
  bool IsDefined() const { return moved_; }

  // Nanoseconds: the running estimate now, its mean over all packets behind the first, its
  // largest value.
  double Current() const { return jitter_ns_; }
  double Mean() const { return packets_ < 2 ? 0 : sum_ns_ / static_cast<double>(packets_ - 1); }
  double Max() const { return max_ns_; }

 private:
  double ns_per_tick_;
  bool moved_ = false;
  std::uint64_t packets_ = 0;
  std::int64_t last_arrival_ns_ = 0;
  std::uint32_t last_timestamp_ = 0;
  double jitter_ns_ = 0;
  double sum_ns_ = 0;
  double max_ns_ = 0;
};

}  // namespace ipplay::measure
