// SPDX-License-Identifier: MIT
#include "transmit/frame_stamper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace ipplayout {
namespace {

using testing::ElementsAre;

// The stamps of the next batch in microseconds.
std::vector<std::int64_t> Batch(FrameStamper& stamper, int frames) {
  std::vector<std::int64_t> stamps;
  for (int i = 0; i < frames; ++i) {
    const FrameHeader header = stamper.Stamp(1370, i == 0);
    EXPECT_LT(header.microseconds, 1000000U);
    stamps.push_back(header.seconds * std::int64_t{1000000} + header.microseconds);
  }
  return stamps;
}

TEST(FrameStamperTest, FramesOfABatchAreWholeMicrosecondsApart) {
  FrameStamper stamper;
  stamper.Begin(Seconds(0.0010009), nullptr);
  EXPECT_THAT(Batch(stamper, 4), ElementsAre(0, 1000, 2000, 3000));  // the rest is cut off
  stamper.BeginBatch(Seconds(0.7500005), Seconds(0.001));
  EXPECT_THAT(Batch(stamper, 4), ElementsAre(0, 750000, 1500000, 2250000));
  stamper.BeginBatch(Seconds(0.5), Seconds(0.001));
  EXPECT_THAT(Batch(stamper, 3), ElementsAre(0, 500000, 1000000));
  stamper.BeginBatch(Seconds(2.25), Seconds(0.001));
  EXPECT_THAT(Batch(stamper, 3), ElementsAre(0, 2250000, 4500000));
  stamper.BeginBatch(Seconds(0), Seconds(0.001));
  EXPECT_THAT(Batch(stamper, 3), ElementsAre(0, 0, 0));
  const FrameHeader header = stamper.Stamp(60, false);
  EXPECT_EQ(header.captured_length, 60U);
  EXPECT_EQ(header.length, 60U);
}

// |interval - interval before it|, a sixteenth of it at a time.
TEST(FrameStamperTest, EstimatesTheJitterOfTheSendClock) {
  FrameStamper stamper;
  stamper.Begin(Seconds(0.001), nullptr);
  stamper.Stamp(1370, true);  // at 0: the first frame does not advance the clock
  EXPECT_EQ(stamper.Jitter().count(), 0);
  stamper.Stamp(1370, false);  // at 1 ms: deviation 1 ms
  EXPECT_NEAR(stamper.Jitter().count(), 62.5e-6, 1e-12);
  stamper.Stamp(1370, false);  // at 2 ms: deviation 0
  EXPECT_NEAR(stamper.Jitter().count(), 58.59375e-6, 1e-12);
  stamper.BeginBatch(Seconds(0.001), Seconds(0.0015009));
  stamper.Stamp(1370, true);  // at 3.500 ms: deviation 0.5 ms
  EXPECT_NEAR(stamper.Jitter().count(), 86.181640625e-6, 1e-12);
  stamper.Begin(Seconds(0.001), nullptr);
  EXPECT_EQ(stamper.Jitter().count(), 0);
}

TEST(FrameStamperTest, ABurstSharesOneStamp) {
  CZebParametricManager parameters;
  parameters.SetBurstMode(1);
  FrameStamper stamper;
  stamper.Begin(Seconds(0.001), &parameters);
  EXPECT_THAT(Batch(stamper, 3), ElementsAre(0, 0, 0));
  EXPECT_EQ(stamper.Jitter().count(), 0);
  stamper.BeginBatch(Seconds(0.001), Seconds(0.003));
  stamper.Stamp(1370, true);  // 3 ms after the burst before it
  EXPECT_NEAR(stamper.Jitter().count(), 0.003 / 16, 1e-12);
}

TEST(FrameStamperTest, JitterMovesFramesButNeverBackBehindOneAnother) {
  const struct {
    float period_us;
    std::vector<std::int64_t> first;   // frames 0, 1, 2, 3: none, -, +, -
    std::vector<std::int64_t> second;  // the first frame of a batch is not moved
    double sum;
  } cases[] = {
      {100, {0, 950, 2000, 2950}, {0, 950, 2000, 2950}, -50e-6},
      // Limited to the gap where it is negative.
      {4000, {0, 0, 3000, 3000}, {0, 0, 3000, 3000}, 0},
      {std::nanf(""), {0, 1000, 2000, 3000}, {0, 1000, 2000, 3000}, 0},
  };
  for (const auto& [period_us, first, second, sum] : cases) {
    CZebParametricManager parameters;
    parameters.SetJitterEnabled(1);
    parameters.SetDistributionType(CZebParametricManager::kSquare);
    parameters.SetSquareCycleLength(2);
    parameters.SetJitterPeriod(period_us);
    FrameStamper stamper;
    stamper.Begin(Seconds(0.001), &parameters);
    EXPECT_EQ(Batch(stamper, 4), first) << period_us;
    EXPECT_NEAR(stamper.JitterSum().count(), sum, 1e-12) << period_us;
    stamper.BeginBatch(Seconds(0.001), Seconds(0.001));
    EXPECT_EQ(stamper.JitterSum().count(), 0);
    EXPECT_EQ(Batch(stamper, 4), second) << period_us;
    EXPECT_TRUE(std::isfinite(stamper.Jitter().count()));
  }
}

// The longest time between two frames, until long after the clock has come to its end.
TEST(FrameStamperTest, TheSendClockStopsAtItsEnd) {
  FrameStamper stamper;
  stamper.Begin(Seconds(1e6), nullptr);
  for (int i = 0; i < 3000; ++i) {
    stamper.BeginBatch(Seconds(1e6), Seconds(1e6));
    Batch(stamper, 2);
    ASSERT_LE(stamper.Jitter().count(), 1e6 / 16);
  }
}

TEST(FrameStamperTest, TheIndexOfAPatternRunsOnOverBatches) {
  CZebParametricManager parameters;
  parameters.SetJitterEnabled(1);
  parameters.SetDistributionType(CZebParametricManager::kSquare);
  parameters.SetSquareCycleLength(2);
  parameters.SetJitterPeriod(100);
  FrameStamper stamper;
  stamper.Begin(Seconds(0.001), &parameters);
  EXPECT_THAT(Batch(stamper, 3), ElementsAre(0, 950, 2000));
  stamper.BeginBatch(Seconds(0.001), Seconds(0.001));
  EXPECT_THAT(Batch(stamper, 3), ElementsAre(0, 1050, 2000));  // frames 4 and 5
}

}  // namespace
}  // namespace ipplayout
