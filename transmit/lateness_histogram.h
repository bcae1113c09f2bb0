// SPDX-License-Identifier: MIT
// How late frames left: a histogram of nanoseconds in a few kilobytes.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace ipplayout {

// Exact below 32 ns, then 16 buckets for each doubling: what it tells is off by 1/32 at most, up to
// 137 s. One thread records; any may read meanwhile. Each count is read whole, but not all at one
// moment: for figures that belong together, merge into a histogram of the reader's own and ask that
// one.
class LatenessHistogram {
 public:
  // Early counts as on time, which is 0.
  void Record(std::chrono::nanoseconds lateness) {
    const std::int64_t count = lateness.count();
    const std::uint64_t value = count > 0 ? static_cast<std::uint64_t>(count) : 0;
    RaiseMaximum(value);  // first: who sees the record counted sees it in the maximum
    Add(buckets_[BucketOf(value)], 1);
  }
  // Adds what `other` holds. By the thread that records here.
  void Merge(const LatenessHistogram& other);

  std::uint64_t Count() const;
  // Exact. Nothing where nothing was recorded.
  std::optional<std::chrono::nanoseconds> Maximum() const;
  // The least lateness that `percent`, 0 to 100, of all records do not exceed, at least one of
  // them. Nothing where nothing was recorded.
  std::optional<std::chrono::nanoseconds> Percentile(double percent) const;
  // Records of at most `bound`, as far as the buckets tell, and their sum.
  struct Part {
    std::uint64_t count = 0;
    std::chrono::nanoseconds sum{0};
  };
  Part UpTo(std::chrono::nanoseconds bound) const;

 private:
  static constexpr int kSubBits = 4;
  static constexpr std::uint64_t kExact = std::uint64_t{2} << kSubBits;
  static constexpr int kLongestBits = 37;
  static constexpr std::uint64_t kLongest = (std::uint64_t{1} << kLongestBits) - 1;
  static constexpr std::size_t kBuckets =
      kExact + (std::size_t{kLongestBits - kSubBits - 1} << kSubBits);
  using Counter = std::atomic<std::uint64_t>;

  static std::size_t BucketOf(std::uint64_t value);
  static std::uint64_t MiddleOf(std::size_t bucket);
  // One thread writes: no locked instruction.
  static void Add(Counter& counter, std::uint64_t more) {
    counter.store(counter.load(std::memory_order_relaxed) + more, std::memory_order_release);
  }
  void RaiseMaximum(std::uint64_t value) {
    if (value > maximum_.load(std::memory_order_relaxed)) {
      maximum_.store(value, std::memory_order_relaxed);
    }
  }

  std::array<Counter, kBuckets> buckets_{};
  Counter maximum_{0};
};

}  // namespace ipplayout
