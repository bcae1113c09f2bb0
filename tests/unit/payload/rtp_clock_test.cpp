// SPDX-License-Identifier: MIT
#include "payload/rtp_clock.h"

#include <gtest/gtest.h>

namespace ipplayout {
namespace {

std::uint32_t TimestampAt(std::uint64_t bit_rate, std::uint32_t initial, int packet) {
  CZebRTPClock clock(90000, bit_rate, 1316, initial);
  std::uint32_t timestamp = 0;
  for (int i = 0; i <= packet; ++i) {
    EXPECT_TRUE(clock.NextTimestamp(&timestamp));
  }
  return timestamp;
}

TEST(RtpClockTest, NeitherDriftsNorStopsAtTheEndOfItsRange) {
  EXPECT_NEAR(TimestampAt(10000000, 0, 1000000), 94752000, 1);
  EXPECT_NEAR(TimestampAt(10000000000, 0, 1000000), 94752, 1);
  EXPECT_EQ(TimestampAt(10000000, 4294967200, 1), 4294967294);
  EXPECT_EQ(TimestampAt(10000000, 4294967200, 2), 93U);
  EXPECT_EQ(TimestampAt(10528 * 32, 0, 2), 5625U);  // steps of 2812.5
  EXPECT_EQ(TimestampAt(10, 0, 7), 663264000U);
  EXPECT_EQ(TimestampAt(0, 7, 5), 7U);
}

}  // namespace
}  // namespace ipplayout
