// SPDX-License-Identifier: MIT
#include "host/measure/figures/rate_watch.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace ipplay::measure {
namespace {

constexpr double kShare = 0.1;
constexpr double kTimesTheSpread = 2;
constexpr double kDatagrams = 2;

}  // namespace

bool RateWatch::HasLeft(std::uint64_t bytes, std::uint32_t longest) const {
  const double mean = std::accumulate(been_.begin(), been_.end(), 0.0) / kSeconds;
  double spread = 0;
  for (const std::uint64_t second : been_) {
    spread = std::max(spread, std::abs(static_cast<double>(second) - mean));
  }
  return std::abs(static_cast<double>(bytes) - mean) >
         std::max({mean * kShare, spread * kTimesTheSpread, longest * kDatagrams});
}

bool RateWatch::Add(std::uint64_t bytes, std::uint32_t longest) {
  if (known_ >= kSeconds && HasLeft(bytes, longest)) {
    left_[away_++] = bytes;
    if (away_ == kSeconds) {
      been_ = left_;
      away_ = 0;
      return false;
    }
    return away_ == 1;
  }
  away_ = 0;
  been_[known_++ % kSeconds] = bytes;
  return false;
}

}  // namespace ipplay::measure
