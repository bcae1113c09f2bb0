#include "payload/rtp_clock.h"

#include <gtest/gtest.h>

#include <array>

#include "payload/timestamp.h"

namespace ipplayout {
namespace {

TEST(RtpClockTest, CarriesTheFractionOfATick) {
  const struct {
    std::uint64_t bit_rate;
    std::uint32_t packet_bytes;
    std::uint32_t initial;
    std::array<std::uint32_t, 8> timestamps;
  } cases[] = {
      {10000000, 1316, 0, {0, 94, 189, 284, 379, 473, 568, 663}},  // 94.752 ticks
      {8000000, 1000, 5, {5, 95, 185, 275, 365, 455, 545, 635}},   // 90 ticks
      {100000000, 100, 0, {0, 0, 1, 2, 2, 3, 4, 5}},               // 0.72 ticks
      {10000000, 1316, 4294967200, {4294967200, 4294967294, 93, 188, 283, 377, 472, 567}},
      {10,
       1370,
       0,
       {0, 98640000, 197280000, 295920000, 394560000, 493200000, 591840000, 690480000}},
      {0, 1316, 7, {7, 7, 7, 7, 7, 7, 7, 7}},
  };
  for (const auto& [bit_rate, packet_bytes, initial, timestamps] : cases) {
    CZebRTPClock clock(90000, bit_rate, packet_bytes, initial);
    for (const std::uint32_t expected : timestamps) {
      std::uint32_t timestamp = 0;
      EXPECT_TRUE(clock.NextTimestamp(&timestamp));
      EXPECT_EQ(timestamp, expected) << bit_rate;
    }
  }
}

TEST(RtpClockTest, DoesNotDrift) {
  const struct {
    std::uint64_t bit_rate;
    double after_a_million;
  } cases[] = {{10000000, 94752000}, {10000000000, 94752}};
  for (const auto& [bit_rate, after_a_million] : cases) {
    CZebRTPClock clock(90000, bit_rate, 1316, 0);
    std::uint32_t timestamp = 0;
    for (int packet = 0; packet <= 1000000; ++packet) {
      clock.NextTimestamp(&timestamp);
    }
    EXPECT_NEAR(timestamp, after_a_million, 1) << bit_rate;
  }
}

TEST(TimestampTest, OrdersPointsInTime) {
  using std::chrono::milliseconds;
  const Timestamp early(milliseconds(1500));
  Timestamp late(early);
  late.Add(0.25);
  EXPECT_DOUBLE_EQ(late.Seconds(), 1.75);
  EXPECT_DOUBLE_EQ(late.Elapsed(early), 0.25);
  EXPECT_EQ(early.Elapsed(late), 0);
  EXPECT_TRUE(early.IsEarlierThan(late));
  EXPECT_FALSE(early.IsEarlierThan(early));
  late.Assign(early);
  EXPECT_EQ(late.Seconds(), 1.5);
  late.Mark();
  EXPECT_FALSE(Timestamp().IsEarlierThan(late));
}

}  // namespace
}  // namespace ipplayout
