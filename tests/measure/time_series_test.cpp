// SPDX-License-Identifier: MIT
#include "host/measure/figures/time_series.h"

#include <gtest/gtest.h>

#include "host/measure/figures/history.h"

namespace ipplay::measure {
namespace {

TEST(TimeSeries, KeepsAllCountsInABoundedNumberOfPoints) {
  TimeSeries<ArrivalPoint> series(10);
  const std::int64_t start = 1'000'005;
  for (std::int64_t t = 0; t < 100'000; t += 5) {
    series.At(start + t).Add(100, t == 77'775 ? 9 : 1);
  }
  EXPECT_LE(series.Points().size(), TimeSeries<ArrivalPoint>::kMaxPoints);
  EXPECT_EQ(series.IntervalNs(), 320);  // the first doubling that fits 100,000 into 600 points
  EXPECT_EQ(series.Points()[77'775 / 320].gap_max_ns, 9);
  std::uint64_t frames = 0;
  for (const ArrivalPoint& point : series.Points()) {
    frames += point.frames;
  }
  EXPECT_EQ(frames, 20'000U);
  series.At(start - 50).Add(100, 1);  // time that goes back counts for the last point
  EXPECT_EQ(series.Points().back().gap_max_ns, 1);
}

TEST(TimeSeries, IsFineWhileItIsShort) {
  constexpr std::int64_t kPoints = TimeSeries<ArrivalPoint>::kMaxPoints;
  TimeSeries<ArrivalPoint> series(64, 1);
  for (std::int64_t t = 0; t < kPoints; ++t) {
    series.At(t).Add(100, 1);
  }
  EXPECT_EQ(series.IntervalNs(), 1);
  EXPECT_EQ(series.Points().size(), static_cast<std::size_t>(kPoints));
  series.At(kPoints).Add(100, 1);
  EXPECT_EQ(series.IntervalNs(), 64);
  ASSERT_EQ(series.Points().size(), 10U);  // 0 to 639
  EXPECT_EQ(series.Points()[0].frames, 64U);
  EXPECT_EQ(series.Points()[9].frames, 25U);
}

}  // namespace
}  // namespace ipplay::measure
