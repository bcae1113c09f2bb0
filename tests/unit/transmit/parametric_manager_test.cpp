// SPDX-License-Identifier: MIT
#include "transmit/parametric_manager.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/random.h"

namespace ipplayout {
namespace {

using Manager = CZebParametricManager;

TEST(ParametricManagerTest, BurstCountFollowsFromPeriodOrSize) {
  constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
  struct Case {
    std::uint8_t burst = 1;
    std::uint32_t by = 0;
    std::uint32_t period_ms = 10;
    std::uint32_t size = 7;
    std::uint32_t bytes = 1358;
    double bit_rate = 1e7;
    std::uint32_t count = 0;
  };
  const Case cases[] = {
      {.burst = 0, .count = 1},
      {.count = 9},                  // 100,000 bits of 10,864 each
      {.period_ms = 1, .count = 1},  // 0.9: one at least
      {.by = 1, .count = 7},
      {.by = 1, .size = 0, .count = 1},
      {.period_ms = 4000000000, .bytes = 54, .bit_rate = 1e12, .count = kMost},
      {.bytes = 0, .count = kMost},
  };
  for (const Case& c : cases) {
    Manager manager;
    manager.SetBurstMode(c.burst);
    manager.SetBurstValueType(c.by);
    manager.SetBurstPeriod(c.period_ms);
    manager.SetBurstSize(c.size);
    EXPECT_TRUE(manager.ComputeBurstCount(c.bytes, c.bit_rate));
    EXPECT_EQ(manager.GetBurstCount(), c.count);
    manager.SetBurstMode(1);
    manager.SetBurstValueType(2);
    EXPECT_FALSE(manager.ComputeBurstCount(c.bytes, c.bit_rate));
    EXPECT_EQ(manager.GetBurstCount(), c.count);
  }
}

TEST(ParametricManagerTest, RegularPatternsAreFunctionsOfTheIndex) {
  struct Case {
    std::int32_t type;
    std::uint8_t burst = 0;
    float period = 100;
    std::int64_t index = 0;
    double offset = 0;
  };
  const Case cases[] = {
      {.type = Manager::kSine, .period = 10},
      {.type = Manager::kSine, .period = 10, .index = 25, .offset = 0.0001},
      {.type = Manager::kSine, .period = 10, .index = 75, .offset = -0.0001},
      // With an exact pi: 0.0001.
      {.type = Manager::kSine, .period = 10, .index = 1000025, .offset = 0.0000987595},
      {.type = Manager::kSquare, .offset = 0.00005},
      {.type = Manager::kSquare, .index = 1, .offset = -0.00005},
      {.type = Manager::kSquare, .index = 2, .offset = 0.00005},
      {.type = Manager::kSquare, .period = -100, .index = 1, .offset = 0.00005},
      {.type = Manager::kSquare, .burst = 1, .offset = 0.0001},
      {.type = Manager::kSquare, .burst = 1, .index = 1},
      {.type = Manager::kNone, .index = 1},
      {.type = 7, .index = 1},
  };
  for (const Case& c : cases) {
    Manager manager;
    manager.SetDistributionType(c.type);
    manager.SetBurstMode(c.burst);
    manager.SetJitterPeriod(c.period);
    manager.SetSquareCycleLength(2);
    EXPECT_NEAR(manager.NextJitter(Seconds(0.001), c.index).count(), c.offset, 1e-9)
        << c.type << ", " << c.index;
  }
}

TEST(ParametricManagerTest, RandomPatternsKeepTheirLimitsAndTheirSpread) {
  const struct {
    std::int32_t type;
    double limit;
    double deviation;
  } cases[] = {
      // Of the difference of two squared uniform variates: twice 1/5 - 1/9.
      {Manager::kSquaredDifference, 1, std::sqrt(8.0 / 45)},
      // A quarter of a normal variate whose uniform source leaves out 0 to 0.01: -2 ln a has the
      // mean 1.955 instead of 2, and squares of cosines a half.
      {Manager::kGaussian, 1, 0.25 * std::sqrt(1.955 / 2)},
  };
  for (const auto& [type, limit, deviation] : cases) {
    Manager manager;
    manager.SetDistributionType(type);
    manager.SetJitterPeriod(50);
    platform::ProcessRandom().Seed(3);
    double sum = 0;
    double squares = 0;
    constexpr int kDraws = 200000;
    for (int i = 0; i < kDraws; ++i) {
      const double jitter =
          manager.NextJitter(Seconds(0.002), i).count() / 0.001;  // half of the gap
      ASSERT_LE(std::abs(jitter), limit);
      sum += jitter;
      squares += jitter * jitter;
    }
    EXPECT_NEAR(sum / kDraws, 0, 0.006) << type;
    EXPECT_NEAR(std::sqrt(squares / kDraws), deviation, 0.004) << type;
  }
}

TEST(ParametricManagerTest, AddTimeBorrowsCarriesAndStopsAtZero) {
  struct Time {
    std::int32_t seconds;
    std::int32_t microseconds;
  };
  const struct {
    Time added;
    Time held;
    Time sum;
  } cases[] = {
      {{0, -300}, {5, 100}, {4, 999800}}, {{-6, 0}, {5, 0}, {0, 0}},
      {{0, 999999}, {1, 2}, {2, 1}},      {{0, 999999}, {0, 1}, {1, 0}},
      {{0, -300}, {0, 100}, {0, 0}},      {{0, -100}, {0, 100}, {0, 0}},
      {{-1, -1}, {1, 0}, {0, 0}},         {{-1, -1}, {2, 0}, {0, 999999}},
      {{-1, 1}, {1, 5}, {0, 6}},          {{3, 999999}, {4, 999999}, {8, 999998}},
  };
  for (const auto& [added, held, sum] : cases) {
    Time time = held;
    Manager().AddTime(added.seconds, added.microseconds, time.seconds, time.microseconds);
    EXPECT_EQ(time.seconds, sum.seconds) << added.seconds << ", " << added.microseconds;
    EXPECT_EQ(time.microseconds, sum.microseconds) << added.seconds << ", " << added.microseconds;
  }
}

}  // namespace
}  // namespace ipplayout
