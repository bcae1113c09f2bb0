// SPDX-License-Identifier: MIT
#include "host/measure/figures/line_extent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

namespace ipplay::measure {
namespace {

using Points = std::vector<std::pair<std::int64_t, std::int64_t>>;

LineExtent::Range BruteForce(const Points& points, double slope) {
  LineExtent::Range range;
  for (const auto& [x, y] : points) {
    const double d = static_cast<double>(y - points[0].second) -
                     slope * static_cast<double>(x - points[0].first);
    range.low = std::min(range.low, d);
    range.high = std::max(range.high, d);
  }
  return range;
}

TEST(LineExtent, AgreesWithLookingAtEveryPoint) {
  std::mt19937 random(3);
  for (int round = 0; round < 50; ++round) {
    LineExtent extent;
    Points points;
    std::int64_t x = 1'000'000'000'000;
    for (int i = 0; i < 500; ++i) {
      // Equal x's happen: bytes before and after an arrival.
      x += static_cast<std::int64_t>(random() % 3 * 1'000'000);
      points.emplace_back(x, x * 2 + static_cast<std::int64_t>(random() % 5'000'000));
      extent.Add(points.back().first, points.back().second);
    }
    for (const double slope : {-1.0, 0.0, 1.9999, 2.0, 2.0001, 100.0}) {
      const auto expected = BruteForce(points, slope);
      const auto found = extent.Deviation(slope);
      EXPECT_NEAR(found.low, expected.low, 1) << slope;
      EXPECT_NEAR(found.high, expected.high, 1) << slope;
    }
  }
}

TEST(LineExtent, StaysSmallAndNearlyExactOnACurve) {
  // Every point of a parabola is a vertex: the worst that a drifting clock can do.
  LineExtent extent;
  Points points;
  for (std::int64_t i = 0; i < 100'000; ++i) {
    points.emplace_back(i * 1000, i * i / 10);
    extent.Add(points.back().first, points.back().second);
  }
  const double slope = 1e9 / 1e8;
  const double expected = BruteForce(points, slope).Spread();
  EXPECT_NEAR(extent.Deviation(slope).Spread(), expected, expected * 0.001);
}

}  // namespace
}  // namespace ipplay::measure
