// SPDX-License-Identifier: MIT
// Counts of non-negative integers in buckets whose width grows with the value, so that memory does
// not grow with the number of values and quantiles keep a bounded relative error.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace ipplay::measure {

class Histogram {
 public:
  // Values below 64 are exact. Above, each power of two is cut into 64 buckets of equal width, so
  // the middle of a bucket is off by at most 1/128 of the value.
  static constexpr std::uint64_t kSubBuckets = 64;
  static constexpr double kRelativeError = 1.0 / 128;
  // Larger values share the bucket of this one: 2^43 ns is 2.4 hours.
  static constexpr std::uint64_t kLargest = (std::uint64_t{1} << 43) - 1;

  struct Bucket {
    std::uint64_t low;   // smallest value of the bucket
    std::uint64_t high;  // largest value of the bucket
    std::uint64_t count;
  };

  void Add(std::uint64_t value, std::uint64_t times = 1);

  std::uint64_t Count() const { return count_; }
  // Exact; 0 while there are no values.
  std::uint64_t Min() const { return count_ == 0 ? 0 : min_; }
  std::uint64_t Max() const { return max_; }
  double Mean() const;

  // Smallest value that at least the share `q` (0 to 1) of all values does not exceed, to within
  // kRelativeError, or the largest of all if it is beyond kLargest; 0 while there are no values.
  double Quantile(double q) const;

  // Buckets that hold something, smallest values first.
  std::vector<Bucket> Buckets() const;

 private:
  __extension__ using Sum = unsigned __int128;
  static constexpr std::size_t kOctaves = 38;
  using Octave = std::array<std::uint64_t, kSubBuckets>;

  static Bucket BucketAt(std::size_t octave, std::size_t sub_bucket, std::uint64_t count);

  // An octave is allocated when its first value comes; most streams touch about ten.
  std::array<std::unique_ptr<Octave>, kOctaves> octaves_;
  std::uint64_t count_ = 0;
  Sum sum_ = 0;
  std::uint64_t min_ = UINT64_MAX;
  std::uint64_t max_ = 0;
};

}  // namespace ipplay::measure
