// SPDX-License-Identifier: MIT
#include "transmit/lateness_histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace ipplayout {

using std::chrono::nanoseconds;

static_assert(sizeof(LatenessHistogram) <= 8192);

// The upper five bits of a value choose its bucket among those of its length.
std::size_t LatenessHistogram::BucketOf(std::uint64_t value) {
  value = std::min(value, kLongest);
  if (value < kExact) {
    return value;
  }
  const std::size_t shift = std::size_t{std::bit_width(value)} - kSubBits - 1;
  return (shift << kSubBits) + (value >> shift);
}

std::uint64_t LatenessHistogram::MiddleOf(std::size_t bucket) {
  if (bucket < kExact) {
    return bucket;
  }
  const std::size_t shift = (bucket >> kSubBits) - 1;
  const std::uint64_t upper_bits = bucket - (shift << kSubBits);
  return (upper_bits << shift) + (std::uint64_t{1} << shift) / 2;
}

void LatenessHistogram::Merge(const LatenessHistogram& other) {
  for (std::size_t i = 0; i < kBuckets; ++i) {
    Add(buckets_[i], other.buckets_[i].load(std::memory_order_acquire));
  }
  RaiseMaximum(other.maximum_.load(std::memory_order_relaxed));
}

std::uint64_t LatenessHistogram::Count() const {
  std::uint64_t count = 0;
  for (const Counter& bucket : buckets_) {
    count += bucket.load(std::memory_order_acquire);
  }
  return count;
}

LatenessHistogram::Part LatenessHistogram::UpTo(nanoseconds bound) const {
  Part part;
  for (std::size_t i = 0; i < kBuckets; ++i) {
    const nanoseconds middle(MiddleOf(i));
    if (middle > bound) {
      break;
    }
    const std::uint64_t count = buckets_[i].load(std::memory_order_acquire);
    part.count += count;
    part.sum += middle * static_cast<std::int64_t>(count);
  }
  return part;
}

std::optional<nanoseconds> LatenessHistogram::Maximum() const {
  return Percentile(100);
}

std::optional<nanoseconds> LatenessHistogram::Percentile(double percent) const {
  const std::uint64_t count = Count();
  if (count == 0) {
    return std::nullopt;
  }
  // Multiplied first: 99.9 / 100 is a little more than its share, and 1,000 times that a rank more.
  const double exact = std::clamp(percent, 0.0, 100.0) * static_cast<double>(count) / 100;
  const auto rank =
      std::clamp<std::uint64_t>(static_cast<std::uint64_t>(std::ceil(exact)), 1, count);
  std::uint64_t value = kLongest;
  std::uint64_t passed = 0;
  for (std::size_t i = 0; i < kBuckets; ++i) {
    passed += buckets_[i].load(std::memory_order_acquire);
    if (passed >= rank) {
      value = MiddleOf(i);
      break;
    }
  }
  const std::uint64_t maximum = maximum_.load(std::memory_order_relaxed);
  return nanoseconds(rank == count ? maximum : std::min(value, maximum));
}

}  // namespace ipplayout
