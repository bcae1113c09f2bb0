// SPDX-License-Identifier: MIT
#include "transmit/lateness_histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

// A rank of its own making: the first sample that has at least that share of all up to it.
std::int64_t ExactPercentile(const std::vector<std::int64_t>& sorted, double percent) {
  std::size_t at = 0;
  while (static_cast<double>(at + 1) * 100 < percent * static_cast<double>(sorted.size())) {
    ++at;
  }
  return sorted[at];
}

std::uint64_t CountUpTo(const std::vector<std::int64_t>& samples, double bound) {
  return static_cast<std::uint64_t>(std::count_if(
      samples.begin(), samples.end(), [bound](auto s) { return static_cast<double>(s) <= bound; }));
}

TEST(LatenessHistogram, PercentilesAreOffByAThirtySecondAtMost) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> exponent(-1, 11);  // 0 ns to 100 s
  std::normal_distribution<double> usual(20'000, 4'000);
  for (const std::size_t count : {1U, 2U, 10U, 1'000U, 50'000U}) {
    for (const bool wide : {false, true}) {
      LatenessHistogram histogram;
      std::vector<std::int64_t> samples;
      for (std::size_t i = 0; i < count; ++i) {
        samples.push_back(
            static_cast<std::int64_t>(wide ? std::pow(10, exponent(random)) : usual(random)));
        histogram.Record(nanoseconds(samples.back()));
      }
      std::sort(samples.begin(), samples.end());
      EXPECT_EQ(histogram.Count(), count);
      EXPECT_EQ(histogram.Maximum()->count(), samples.back());
      const auto all = histogram.UpTo(nanoseconds::max());
      const auto sum =
          static_cast<double>(std::accumulate(samples.begin(), samples.end(), std::int64_t{0}));
      EXPECT_EQ(all.count, count);
      EXPECT_LE(std::abs(static_cast<double>(all.sum.count()) - sum), sum / 32);
      for (const double percent : {0.0, 0.1, 1.0, 25.0, 50.0, 75.0, 90.0, 99.0, 99.9, 100.0}) {
        const auto exact = static_cast<double>(ExactPercentile(samples, percent));
        const auto told = static_cast<double>(histogram.Percentile(percent)->count());
        EXPECT_LE(std::abs(told - exact), exact / 32) << percent << " % of " << count;
        // Samples near the bound may be counted on either side of it.
        const auto part = histogram.UpTo(nanoseconds(static_cast<std::int64_t>(exact)));
        EXPECT_GE(part.count, CountUpTo(samples, exact * 30 / 32)) << percent;
        EXPECT_LE(part.count, CountUpTo(samples, exact * 34 / 32)) << percent;
      }
    }
  }
}

TEST(LatenessHistogram, EveryValueComesBackWithinItsBound) {
  for (int bits = 0; bits <= 37; ++bits) {
    for (const std::int64_t near : {-1, 0, 1}) {
      const std::int64_t value = std::min((std::int64_t{1} << bits) + near, 100'000'000'000);
      LatenessHistogram histogram;
      histogram.Record(nanoseconds(value));
      histogram.Record(std::chrono::hours(1));  // so that the maximum does not help
      EXPECT_LE(std::abs(histogram.Percentile(50)->count() - value) * 32, value) << value;
    }
  }
}

TEST(LatenessHistogram, TellsNothingWhereNothingWasRecordedAndZeroForEarly) {
  LatenessHistogram histogram;
  EXPECT_EQ(histogram.Count(), 0U);
  EXPECT_FALSE(histogram.Maximum());
  EXPECT_FALSE(histogram.Percentile(50));
  histogram.Record(nanoseconds(-5));
  EXPECT_EQ(histogram.Count(), 1U);
  EXPECT_EQ(histogram.Maximum(), nanoseconds(0));
  EXPECT_EQ(histogram.Percentile(50), nanoseconds(0));
  histogram.Record(std::chrono::hours(1));
  EXPECT_EQ(histogram.Maximum(), std::chrono::hours(1));
}

TEST(LatenessHistogram, MergesAsIfRecordedInOne) {
  LatenessHistogram low;
  LatenessHistogram high;
  LatenessHistogram both;
  for (int i = 1; i <= 100; ++i) {
    low.Record(nanoseconds(i));
    high.Record(nanoseconds(i * 1'000));
    both.Record(nanoseconds(i));
    both.Record(nanoseconds(i * 1'000));
  }
  low.Merge(high);
  low.Merge(LatenessHistogram());
  EXPECT_EQ(low.Count(), 200U);
  EXPECT_EQ(low.Maximum(), nanoseconds(100'000));
  for (int percent = 0; percent <= 100; ++percent) {
    EXPECT_EQ(low.Percentile(percent), both.Percentile(percent)) << percent;
  }
}

TEST(LatenessHistogram, IsReadWhileItIsWritten) {
  LatenessHistogram histogram;
  std::thread writer([&histogram] {
    for (int i = 0; i < 300'000; ++i) {
      histogram.Record(nanoseconds(1'000 + i % 100));
    }
  });
  for (std::uint64_t count = 0, before = 0; count < 300'000; before = count) {
    LatenessHistogram own;
    own.Merge(histogram);
    count = own.Count();
    EXPECT_GE(count, before);
    const auto median = own.Percentile(50);
    EXPECT_TRUE(!median || (*median >= nanoseconds(968) && *median <= nanoseconds(1'099)));
  }
  writer.join();
}

}  // namespace
}  // namespace ipplayout
