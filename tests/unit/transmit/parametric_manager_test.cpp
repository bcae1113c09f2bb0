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
  const struct {
    std::uint8_t burst_mode;
    std::uint32_t value_type;
    std::uint32_t period_ms;
    std::uint32_t size;
    std::uint32_t datagram_bytes;
    double bit_rate;
    std::uint32_t count;
  } cases[] = {
      {0, 0, 10, 7, 1358, 1e7, 1},
      {1, 0, 10, 7, 1358, 1e7, 9},  // 100,000 bits of 10,864 each
      {1, 0, 1, 7, 1358, 1e7, 1},   // 0.9: one at least
      {1, 1, 10, 7, 1358, 1e7, 7},
      {1, 1, 10, 0, 1358, 1e7, 1},
      {1, 0, 4000000000, 7, 54, 1e12, kMost},
      {1, 0, 10, 7, 0, 1e7, kMost},
  };
  for (const auto& c : cases) {
    Manager manager;
    manager.SetBurstMode(c.burst_mode);
    manager.SetBurstValueType(c.value_type);
    manager.SetBurstPeriod(c.period_ms);
    manager.SetBurstSize(c.size);
    EXPECT_TRUE(manager.ComputeBurstCount(c.datagram_bytes, c.bit_rate));
    EXPECT_EQ(manager.GetBurstCount(), c.count);
    manager.SetBurstMode(1);
    manager.SetBurstValueType(2);
    EXPECT_FALSE(manager.ComputeBurstCount(c.datagram_bytes, c.bit_rate));
    EXPECT_EQ(manager.GetBurstCount(), c.count);
  }
}

TEST(ParametricManagerTest, RegularPatternsAreFunctionsOfTheIndex) {
  const struct {
    std::int32_t type;
    std::uint8_t burst_mode;
    float period;
    std::int64_t index;
    double offset;
  } cases[] = {
      {Manager::kSine, 0, 10, 0, 0},
      {Manager::kSine, 0, 10, 25, 0.0001},
      {Manager::kSine, 0, 10, 75, -0.0001},
      {Manager::kSine, 0, 10, 1000025, 0.0000987595},  // with an exact pi: 0.0001
      {Manager::kSquare, 0, 100, 0, 0.00005},
      {Manager::kSquare, 0, 100, 1, -0.00005},
      {Manager::kSquare, 0, 100, 2, 0.00005},
      {Manager::kSquare, 0, -100, 1, 0.00005},
      {Manager::kSquare, 1, 100, 0, 0.0001},
      {Manager::kSquare, 1, 100, 1, 0},
      {Manager::kNone, 0, 100, 1, 0},
      {7, 0, 100, 1, 0},
  };
  for (const auto& c : cases) {
    Manager manager;
    manager.SetDistributionType(c.type);
    manager.SetBurstMode(c.burst_mode);
    manager.SetJitterPeriod(c.period);
    manager.SetSquareCycleLength(2);
    EXPECT_NEAR(manager.NextJitter(0.001, c.index), c.offset, 1e-9) << c.type << ", " << c.index;
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
    platform::SeedRandom(3);
    double sum = 0;
    double squares = 0;
    constexpr int kDraws = 200000;
    for (int i = 0; i < kDraws; ++i) {
      const double jitter = manager.NextJitter(0.002, i) / 0.001;  // half of the gap
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
