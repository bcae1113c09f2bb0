// SPDX-License-Identifier: MIT
#include "host/measure/figures/spacing.h"

#include <gtest/gtest.h>

#include "host/measure/figures/rate_meter.h"

namespace ipplay::measure {
namespace {

// Frames of 1000 bytes at 8 Mbit/s: one every millisecond, 1000 ns a byte.
constexpr SpacingSettings kOneAMillisecond{.ns_per_byte = 1000, .clump_gap_ns = {}};
constexpr std::int64_t kMs = 1'000'000;

TEST(Spacing, ComparesArrivalsWithTheGridOfTheExpectedRate) {
  Spacing spacing(kOneAMillisecond);
  // On time, 300 us late, 100 us early, on time.
  for (const std::int64_t time :
       {0 * kMs, 1 * kMs, 2 * kMs + 300'000, 3 * kMs - 100'000, 4 * kMs}) {
    spacing.Add(time, 1000, true);
  }
  EXPECT_EQ(spacing.Gaps().Count(), 4U);
  EXPECT_EQ(spacing.Gaps().Min(), 600'000U);
  EXPECT_EQ(spacing.Gaps().Max(), 1'300'000U);
  EXPECT_EQ(spacing.GapErrors().Max(), 400'000U);  // 600 us instead of 1 ms
  EXPECT_DOUBLE_EQ(spacing.GridDeviation()->low, -100'000);
  EXPECT_DOUBLE_EQ(spacing.GridDeviation()->high, 300'000);
  EXPECT_EQ(spacing.ClumpedFrames(), 0U);
}

TEST(Spacing, MeasuresAgainstItsOwnMeanWithoutAnExpectedRate) {
  Spacing spacing{SpacingSettings{}};
  // 1 ms apart but for one that is 200 us late; 10 gaps in 10 ms.
  for (int i = 0; i <= 10; ++i) {
    spacing.Add(i * kMs + (i == 5 ? 200'000 : 0), 1000, true);
  }
  EXPECT_NEAR(spacing.GridDeviation()->high, 200'000, 20'000);
  EXPECT_NEAR(spacing.GridDeviation()->Spread(), 200'000, 1);
}

TEST(Spacing, AHoleLeavesTheGapsBehindItAsTheyAre) {
  Spacing spacing{SpacingSettings{}};
  for (int i = 0; i < 1000; ++i) {
    spacing.Add((i + (i < 500 ? 0 : 2000)) * kMs, 1000, i != 500);
  }
  EXPECT_EQ(spacing.Gaps().Max(), 2'001'000'000U);
  EXPECT_EQ(spacing.GapErrors().Count(), 999U);
  EXPECT_EQ(spacing.GapErrors().Quantile(0.99), 0U);
}

// Each burst's last frame is four gaps early. What a fit of 400 teeth is off by is below 1/400.
TEST(Spacing, BurstsAreAsWideAsTheyAreWithoutAnExpectedRate) {
  Spacing spacing{SpacingSettings{}};
  for (int i = 0; i < 2000; ++i) {
    spacing.Add(i / 5 * 5 * kMs, 1000, true);
  }
  EXPECT_NEAR(spacing.GridDeviation()->Spread(), 4 * kMs, 0.02 * kMs);
  EXPECT_EQ(spacing.TimeReversals(), 0U);  // equal stamps do not go back
}

TEST(Spacing, FollowsTheGridWhereItMoves) {
  // A short frame's successor may come sooner; behind a gap in the numbers the grid starts anew,
  // whether the lost frame's slot was left empty or not.
  for (const bool slot_left_empty : {true, false}) {
    Spacing spacing(kOneAMillisecond);
    std::int64_t time = 0;
    for (int i = 0; i < 10; ++i) {
      spacing.Add(time, i == 3 ? 500 : 1000, /*continuous=*/i != 6);
      time += i == 3 ? kMs / 2 : kMs;
      if (i == 5 && slot_left_empty) {
        time += kMs;
      }
    }
    EXPECT_EQ(spacing.GridDeviation()->Spread(), 0) << slot_left_empty;
  }
}

TEST(Spacing, CountsClumpsAndTheirLengths) {
  Spacing spacing(kOneAMillisecond);
  // Bursts of 3, 1, 2, 1 and 1: what is closer than 250 us counts as clumped.
  for (const std::int64_t time : {0 * kMs, 10'000 + 0 * kMs, 20'000 + 0 * kMs, 3 * kMs, 4 * kMs,
                                  4 * kMs + 249'000, 6 * kMs, 6 * kMs + 251'000}) {
    spacing.Add(time, 1000, true);
  }
  spacing.EndBurst();
  EXPECT_EQ(spacing.ClumpedFrames(), 3U);
  EXPECT_EQ(spacing.BurstLengths().Count(), 2U);
  EXPECT_EQ(spacing.BurstLengths().Min(), 2U);
  EXPECT_EQ(spacing.BurstLengths().Max(), 3U);
}

TEST(Spacing, TimeThatGoesBackIsToldAndHarmless) {
  Spacing spacing(kOneAMillisecond);
  for (const std::int64_t time : {5 * kMs, 4 * kMs, 6 * kMs}) {
    spacing.Add(time, 1000, true);
  }
  EXPECT_EQ(spacing.TimeReversals(), 1U);
  EXPECT_EQ(spacing.Gaps().Min(), 0U);
}

TEST(Spacing, AHoleThatTimeGoesBackBehindCountsOnce) {
  Spacing spacing({});
  constexpr std::int64_t kLate = std::int64_t{1} << 61;
  for (int round = 0; round < 10; ++round) {
    for (const std::int64_t time : {std::int64_t{0}, kLate}) {
      spacing.Add(time, 1000, false);
    }
  }
  spacing.Add(kLate + kMs, 1000, true);  // a millisecond for 1000 bytes
  spacing.Add(kLate + 2 * kMs, 1000, true);
  spacing.Add(kLate + 2 * kMs + kMs / 10, 1000, true);
  EXPECT_EQ(spacing.ClumpedFrames(), 1U);
}

TEST(RateMeter, CountsGapsNotFrames) {
  RateMeter rate;
  // The last one is short, as at the end of a file.
  for (int i = 0; i < 11; ++i) {
    rate.Add(i * 100 * kMs, i < 10 ? 1000 : 500, i < 10 ? 900 : 400);
  }
  EXPECT_DOUBLE_EQ(rate.Seconds(), 1.0);
  EXPECT_DOUBLE_EQ(rate.FrameRate(), 10);
  EXPECT_DOUBLE_EQ(rate.FrameBitRate(), 80'000);
  EXPECT_DOUBLE_EQ(rate.PayloadBitRate(), 72'000);
  EXPECT_NEAR(rate.FittedFrameBitRate(), 80'000, 1e-6);
}

TEST(RateMeter, ALateLastFrameHardlyMovesTheFit) {
  RateMeter rate;
  for (int i = 0; i < 1000; ++i) {
    rate.Add(i * kMs + (i == 999 ? 5 * kMs : 0), 1000, 900);
  }
  EXPECT_LT(rate.FrameBitRate(), 8e6 * 0.996);
  // Five gaps late at the end of n: the slope grows by about 6 * 5 / n^2, 30 ppm.
  EXPECT_NEAR(rate.FittedFrameBitRate() / 8e6 - 1, -30e-6, 1e-6);
}

}  // namespace
}  // namespace ipplay::measure
