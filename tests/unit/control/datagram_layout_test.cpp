// SPDX-License-Identifier: MIT
// What no byte on the wire shows: the size of batches, and where reading begins.
#include "control/datagram_layout.h"

#include <gtest/gtest.h>

#include <limits>

namespace ipplayout {
namespace {

TEST(DatagramLayoutTest, BatchesFollowFromRateJitterAndBursts) {
  struct Case {
    double mbit = 1;
    std::int32_t replication = 0;
    std::uint32_t jitter = 0;
    std::uint32_t pattern = 0;
    std::uint32_t burst = 0;
    std::uint32_t frames = 0;
  };
  const Case cases[] = {
      {.mbit = 80, .frames = 1},
      {.mbit = 80.001, .frames = 10},
      {.mbit = 40, .replication = 1, .frames = 1},
      {.mbit = 50, .replication = 1, .frames = 10},
      {.mbit = 50, .replication = -3, .frames = 1},
      {.jitter = 1, .frames = 10},
      {.jitter = 1, .pattern = 3, .frames = 200},
      {.pattern = 3, .frames = 1},
      {.jitter = 2, .pattern = 3, .frames = 1},
      {.mbit = 500, .jitter = 1, .pattern = 3, .burst = 1, .frames = 77},
      {.burst = 1, .frames = 77},
      {.burst = 2, .frames = 1},
  };
  for (const Case& c : cases) {
    PlayoutSettings settings{};
    settings.IPBitRate = c.mbit;
    settings.params.ReplicationCount = c.replication;
    settings.parametric.JitterEnabled = c.jitter;
    settings.parametric.JitterDistributionType = c.pattern;
    settings.parametric.BurstMode = c.burst;
    EXPECT_EQ(PacketsPerQueue(settings, 77), c.frames) << c.mbit << ", " << c.pattern;
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
