// SPDX-License-Identifier: MIT
#include "host/measure/figures/media_delivery_index.h"

#include <gtest/gtest.h>

namespace ipplay::measure {
namespace {

constexpr std::int64_t kMs = 1'000'000;

// 1000 bytes every 10 ms drain at 100 bytes a millisecond.
TEST(MediaDeliveryIndex, DelayFactorIsTheBufferThatTheSecondNeeds) {
  const struct {
    const char* name;
    bool rate_given;
    bool late;  // the datagram at 500 ms comes 40 ms late, so that five arrive at once
    int datagrams;
    double milliseconds;
  } cases[] = {
      {"even: 0 to 1000 bytes in the buffer", true, false, 101, 10},
      {"even, at the rate that the stream shows", false, false, 301, 10},
      {"late: 400 bytes short, then filled as before", true, true, 101, 50},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MediaDeliveryIndex mdi(c.rate_given ? std::optional(1000.0 / (10 * kMs)) : std::nullopt);
    for (int i = 0; i < c.datagrams; ++i) {
      mdi.Add((c.late && i >= 50 && i < 54 ? 540 : i * 10) * kMs, 1000, 0);
    }
    EXPECT_EQ(mdi.DelayFactors().Count(), static_cast<std::uint64_t>(c.datagrams / 100));
    ASSERT_TRUE(mdi.Last());
    EXPECT_NEAR(mdi.Last()->delay_factor_ns, c.milliseconds * kMs, 1);
    EXPECT_EQ(mdi.Last()->lost_packets, 0U);
  }
}

TEST(MediaDeliveryIndex, CountsLossesInTheirSecondAndSkipsEmptySeconds) {
  MediaDeliveryIndex mdi(std::nullopt);
  mdi.Add(0, 1000, 0);
  mdi.Add(999 * kMs, 1000, 7);
  const auto first = mdi.Add(5200 * kMs, 1000, 14);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->start_ns, 0);
  EXPECT_EQ(first->lost_packets, 7U);
  const auto last = mdi.Finish();
  ASSERT_TRUE(last);
  EXPECT_EQ(last->start_ns, 5000 * kMs);
  EXPECT_EQ(last->lost_packets, 14U);
  EXPECT_EQ(mdi.LossRates().Count(), 2U);
  EXPECT_FALSE(mdi.Finish());
}

}  // namespace
}  // namespace ipplay::measure
