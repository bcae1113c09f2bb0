// SPDX-License-Identifier: MIT
#include "host/measure/figures/media_delivery_index.h"

#include <gtest/gtest.h>

namespace ipplay::measure {
namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr auto kIgnore = [](const MediaDeliveryIndex::Interval&) {};

// 1000 bytes every 10 ms drain at 100 bytes a millisecond, for 10 s; some do not come.
TEST(MediaDeliveryIndex, TheBufferCoversHolesWhereverTheyLie) {
  enum class Rate { kGiven, kStated, kNone };
  const struct {
    const char* name;
    int lost_from, lost_to;  // in ms
    int late_by;             // the last one, in ms
    int end;                 // of the measurement
    double milliseconds;
  } cases[] = {
      {"even", 0, 0, 0, 9990, 10},
      {"200 ms within a second", 3400, 3600, 0, 9990, 210},
      {"200 ms across a second", 3900, 4100, 0, 9990, 210},
      {"900 ms across a second", 3550, 4450, 0, 9990, 910},
      {"3 s", 3500, 6500, 0, 9990, 3010},
      {"3 s of whole seconds", 4000, 7000, 0, 9990, 3010},
      {"the last one late", 0, 0, 50, 10040, 60},
      {"nothing in the second half", 5000, 10000, 0, 10000, 5010},
  };
  for (const auto& c : cases) {
    for (const Rate rate : {Rate::kGiven, Rate::kStated, Rate::kNone}) {
      SCOPED_TRACE(c.name + std::to_string(static_cast<int>(rate)));
      MediaDeliveryIndex mdi(rate == Rate::kGiven ? std::optional(1000.0 / (10 * kMs))
                                                  : std::nullopt);
      if (rate == Rate::kStated) {
        mdi.StateRate(1000.0 / (10 * kMs));
      }
      int above = 0;
      const auto count = [&](const MediaDeliveryIndex::Interval& interval) {
        above += interval.delay_factor_ns > 10 * kMs + 1 ? 1 : 0;
      };
      std::uint64_t lost = 0;
      for (int at = 0; at < 10000; at += 10) {
        if (at >= c.lost_from && at < c.lost_to) {
          ++lost;
          continue;
        }
        mdi.Add((at == 9990 ? at + c.late_by : at) * kMs, 1000, lost, count);
        lost = 0;
      }
      mdi.Finish(c.end * kMs, count);
      EXPECT_NEAR(static_cast<double>(mdi.DelayFactors().Max()), c.milliseconds * kMs, 1);
      EXPECT_EQ(mdi.DelayFactors().Count(), c.late_by > 0 ? 11U : 10U);
      // A hole leaves no trace in the seconds behind it.
      EXPECT_LE(above, 1 + (c.lost_to - c.lost_from) / 1000);
    }
  }
}

TEST(MediaDeliveryIndex, CountsLossesInTheirSecond) {
  MediaDeliveryIndex mdi(std::nullopt);
  mdi.Add(0, 1000, 0, kIgnore);
  mdi.Add(999 * kMs, 1000, 7, kIgnore);
  std::vector<std::uint64_t> lost;
  const auto keep = [&](const MediaDeliveryIndex::Interval& i) { lost.push_back(i.lost_packets); };
  mdi.Add(5200 * kMs, 1000, 14, keep);
  mdi.Finish(5300 * kMs, keep);
  EXPECT_EQ(lost, (std::vector<std::uint64_t>{7, 0, 0, 0, 0, 14}));
}

// Every second of a hole counts, however long it is: here three days.
TEST(MediaDeliveryIndex, CountsTheSecondsOfLongHoles) {
  constexpr std::int64_t kSeconds = 3 * 24 * 3600;
  // A datagram lasts a second.
  MediaDeliveryIndex mdi(1000.0 / (1000 * kMs));
  std::int64_t seconds = 0;
  std::int64_t calls = 0;
  std::int64_t end_ns = 0;
  const auto count = [&](const MediaDeliveryIndex::Interval& i) {
    EXPECT_EQ(i.start_ns, end_ns);
    end_ns = i.start_ns + i.count * MediaDeliveryIndex::kIntervalNs;
    seconds += i.count;
    ++calls;
  };
  mdi.Add(0, 1000, 0, count);
  mdi.Add(kSeconds * 1000 * kMs, 1000, 0, count);
  EXPECT_EQ(seconds, kSeconds);
  EXPECT_LT(calls, 10'000);
  EXPECT_EQ(mdi.DelayFactors().Count(), std::uint64_t{kSeconds});
  EXPECT_EQ(mdi.LossRates().Count(), std::uint64_t{kSeconds});
  // In the n-th second, nothing has come for n seconds.
  EXPECT_EQ(mdi.DelayFactors().Max(), std::uint64_t{kSeconds} * 1000 * kMs);
  EXPECT_NEAR(mdi.DelayFactors().Mean(), (kSeconds + 1) / 2.0 * 1000 * kMs, 2);
}

}  // namespace
}  // namespace ipplay::measure
