// SPDX-License-Identifier: MIT
#include "host/measure/figures/histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace ipplay::measure {
namespace {

TEST(Histogram, KeepsSmallValuesExactly) {
  Histogram histogram;
  EXPECT_EQ(histogram.Quantile(0.5), 0);
  for (std::uint64_t value = 0; value < 64; ++value) {
    histogram.Add(value);
  }
  EXPECT_EQ(histogram.Quantile(0), 0);
  EXPECT_EQ(histogram.Quantile(0.5), 31);
  EXPECT_EQ(histogram.Quantile(1), 63);
  EXPECT_DOUBLE_EQ(histogram.Mean(), 31.5);
}

TEST(Histogram, QuantilesKeepTheirErrorOverAllMagnitudes) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> magnitude(0, 42);
  std::vector<std::uint64_t> values;
  Histogram histogram;
  for (int i = 0; i < 20'000; ++i) {
    values.push_back(static_cast<std::uint64_t>(std::exp2(magnitude(random))));
    histogram.Add(values.back());
  }
  std::ranges::sort(values);
  for (const Histogram::Bucket& bucket : histogram.Buckets()) {
    const auto from = std::ranges::lower_bound(values, bucket.low);
    const auto to = std::ranges::upper_bound(values, bucket.high);
    EXPECT_EQ(bucket.count, static_cast<std::uint64_t>(to - from)) << bucket.low;
  }
  for (const double q : {0.001, 0.1, 0.5, 0.9, 0.99, 0.999, 1.0}) {
    const auto rank = static_cast<std::size_t>(std::ceil(q * 20'000)) - 1;
    const auto exact = static_cast<double>(values[rank]);
    EXPECT_NEAR(histogram.Quantile(q), exact, exact * Histogram::kRelativeError) << q;
  }
}

TEST(Histogram, KnowsTheTrueLargestBeyondItsBuckets) {
  Histogram histogram;
  histogram.Add(UINT64_MAX);
  histogram.Add(UINT64_MAX);
  EXPECT_EQ(histogram.Max(), UINT64_MAX);
  EXPECT_DOUBLE_EQ(histogram.Mean(), 18446744073709551615.0);
  histogram.Add(1);
  EXPECT_DOUBLE_EQ(histogram.Quantile(0.5), 18446744073709551615.0);
}

}  // namespace
}  // namespace ipplay::measure
