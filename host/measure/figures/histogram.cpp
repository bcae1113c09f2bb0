// SPDX-License-Identifier: MIT
#include "host/measure/figures/histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace ipplay::measure {
namespace {

constexpr int kSubBucketBits = std::bit_width(Histogram::kSubBuckets) - 1;

}  // namespace

void Histogram::Add(std::uint64_t value, std::uint64_t times) {
  if (times == 0) {
    return;
  }
  count_ += times;
  sum_ += Sum{value} * times;
  min_ = std::min(min_, value);
  max_ = std::max(max_, value);
  value = std::min(value, kLargest);
  // Octave 0 holds the values below 64, octave k those from 64 * 2^(k-1) to twice that.
  const int shift = std::max(0, static_cast<int>(std::bit_width(value)) - kSubBucketBits - 1);
  const std::size_t octave = value < kSubBuckets ? 0 : static_cast<std::size_t>(shift) + 1;
  if (octaves_[octave] == nullptr) {
    octaves_[octave] = std::make_unique<Octave>();
  }
  (*octaves_[octave])[(value >> shift) % kSubBuckets] += times;
}

double Histogram::Mean() const {
  return count_ == 0 ? 0 : static_cast<double>(sum_) / static_cast<double>(count_);
}

Histogram::Bucket Histogram::BucketAt(std::size_t octave, std::size_t sub_bucket,
                                      std::uint64_t count) {
  if (octave == 0) {
    return {sub_bucket, sub_bucket, count};
  }
  const std::size_t shift = octave - 1;
  const std::uint64_t low = (kSubBuckets + sub_bucket) << shift;
  return {low, low + (std::uint64_t{1} << shift) - 1, count};
}

std::vector<Histogram::Bucket> Histogram::Buckets() const {
  std::vector<Bucket> buckets;
  for (std::size_t octave = 0; octave < kOctaves; ++octave) {
    if (octaves_[octave] == nullptr) {
      continue;
    }
    for (std::size_t i = 0; i < kSubBuckets; ++i) {
      const std::uint64_t count = (*octaves_[octave])[i];
      if (count > 0) {
        buckets.push_back(BucketAt(octave, i, count));
      }
    }
  }
  return buckets;
}

double Histogram::Quantile(double q) const {
  if (count_ == 0) {
    return 0;
  }
  const double wanted = std::ceil(std::clamp(q, 0.0, 1.0) * static_cast<double>(count_));
  const auto rank = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(wanted));
  std::uint64_t seen = 0;
  for (const Bucket& bucket : Buckets()) {
    seen += bucket.count;
    if (seen < rank) {
      continue;
    }
    if (bucket.high == kLargest && max_ > kLargest) {
      break;
    }
    const double middle = (static_cast<double>(bucket.low) + static_cast<double>(bucket.high)) / 2;
    return std::clamp(middle, static_cast<double>(min_), static_cast<double>(max_));
  }
  return static_cast<double>(max_);
}

}  // namespace ipplay::measure
