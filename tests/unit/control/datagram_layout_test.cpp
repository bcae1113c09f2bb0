// SPDX-License-Identifier: MIT
// What no byte on the wire shows: the size of batches, and where reading begins.
#include "control/datagram_layout.h"

#include <gtest/gtest.h>

#include <limits>

namespace ipplayout {
namespace {

TEST(DatagramLayoutTest, BatchesFollowFromRateJitterAndBursts) {
  const struct {
    double mbit;
    std::int32_t replication;
    std::uint32_t jitter;
    std::uint32_t distribution;
    std::uint32_t burst;
    std::uint32_t frames;
  } cases[] = {
      {80, 0, 0, 0, 0, 1},  {80.001, 0, 0, 0, 0, 10}, {40, 1, 0, 0, 0, 1},  {50, 1, 0, 0, 0, 10},
      {50, -3, 0, 0, 0, 1}, {1, 0, 1, 0, 0, 10},      {1, 0, 1, 3, 0, 200}, {1, 0, 0, 3, 0, 1},
      {1, 0, 2, 3, 0, 1},   {500, 0, 1, 3, 1, 77},    {1, 0, 0, 0, 1, 77},  {1, 0, 0, 0, 2, 1},
  };
  for (const auto& c : cases) {
    PlayoutSettings settings{};
    settings.IPBitRate = c.mbit;
    settings.params.ReplicationCount = c.replication;
    settings.parametric.JitterEnabled = c.jitter;
    settings.parametric.JitterDistributionType = c.distribution;
    settings.parametric.BurstMode = c.burst;
    EXPECT_EQ(PacketsPerQueue(settings, 77), c.frames) << c.mbit << ", " << c.distribution;
  }
}

TEST(DatagramLayoutTest, ReadingBeginsAtFourFifthsOfRingOrFile) {
  const std::pair<std::uint64_t, std::uint32_t> cases[] = {
      {0, 0},
      {1, 0},
      {1000000, 800000},
      {53687090, 42949672},
      {53687091, 53687091},
      {std::numeric_limits<std::uint64_t>::max(), 53687091}};
  for (const auto& [file_size, threshold] : cases) {
    EXPECT_EQ(StartThreshold(file_size, 64 << 20), threshold) << file_size;
  }
}

}  // namespace
}  // namespace ipplayout
