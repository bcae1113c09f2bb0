// SPDX-License-Identifier: MIT
#include "host/play/status.h"

#include <gtest/gtest.h>

#include "host/play/time_line.h"

namespace ipplay {
namespace {

using namespace std::chrono_literals;

// 1,316 bytes of payload every 10 ms: 1,052,800 bit/s.
PlayPlan TestPlan() {
  PlayPlan plan;
  plan.rates.stream = 1'052'800;
  plan.sizes.payload_bytes = 1316;
  plan.rounds.round_bytes = 1316 * 400;
  plan.rounds.total_bytes = 1316 * 1000;
  return plan;
}

PlayoutStatistics Counted(std::uint64_t datagrams) {
  PlayoutStatistics counters{};
  counters.DatagramsSent = datagrams;
  counters.TSBytesSent = datagrams * 1316;
  return counters;
}

TEST(Status, RatesAndTimes) {
  StatusMeter meter(TestPlan());
  meter.Read(Counted(0), 500ms);
  EXPECT_FALSE(meter.Started());
  EXPECT_FALSE(meter.Total().mean_rate);
  // The first datagram leaves at 500 ms, 10 ms lie between two.
  for (int i = 0; i < 500; ++i) {
    meter.Read(Counted(static_cast<std::uint64_t>(i) + 1), 500ms + i * 10ms);
  }
  meter.End(Counted(500), true);
  const Status status = meter.Total();
  EXPECT_EQ(status.elapsed, 4990ms);
  EXPECT_EQ(status.round, 2U);
  EXPECT_NEAR(status.mean_rate.value(), 1'052'800, 1);
  EXPECT_NEAR(status.recent_rate.value(), 1'052'800, 1);
  EXPECT_DOUBLE_EQ(*status.share, 0.5);
  EXPECT_NEAR(static_cast<double>(status.remaining->count()), 5e9, 1e3);
}

// A datagram that was not there at 490 ms and is there at 510 ms left at 500 ms, give or take.
TEST(Status, FirstDatagramLeftBetweenTwoReadings) {
  StatusMeter meter(TestPlan());
  meter.Read(Counted(0), 490ms);
  meter.Read(Counted(2), 510ms);
  meter.Read(Counted(11), 600ms);
  EXPECT_EQ(meter.Total().elapsed, 100ms);
  EXPECT_NEAR(meter.Total().mean_rate.value(), 1'052'800, 1);
}

// Four more than have left are counted all the way, and sent in the end.
TEST(Status, WhatIsInHandDoesNotRaiseTheRateOfAStoppedRun) {
  StatusMeter meter(TestPlan());
  for (int i = 0; i < 100; ++i) {
    meter.Read(Counted(static_cast<std::uint64_t>(i) + 5), i * 10ms);
  }
  EXPECT_NEAR(meter.Total().mean_rate.value(), 1'052'800, 1);
  meter.End(Counted(104), false);
  EXPECT_NEAR(meter.Total().mean_rate.value(), 1'052'800, 1);
  EXPECT_EQ(meter.Total().counters.DatagramsSent, 104U);
}

// The first two of ten are lost: eight leave in the time of ten.
TEST(Status, LostDatagramsTakeNoTime) {
  PlayPlan plan = TestPlan();
  plan.rates.share_sent = 0.8;
  StatusMeter meter(plan);
  PlayoutStatistics counters = Counted(22);
  counters.LostPackets = 6;
  meter.Read(Counted(1), 0ms);
  meter.Read(counters, 15 * 12500us);  // sixteen left, 12.5 ms apart
  meter.End(counters, true);
  EXPECT_NEAR(meter.Total().mean_rate.value(), 1'052'800, 1);
}

// Bursts of four every 40 ms: between the first and the second lies the time of four datagrams.
TEST(Status, LastBurstHasNotTakenItsTime) {
  PlayPlan plan = TestPlan();
  plan.settings.shape.BurstMode = 1;
  plan.rates.batch = 4;
  StatusMeter meter(plan);
  meter.Read(Counted(4), 0ms);
  meter.Read(Counted(10), 40ms);  // the last two do not wait
  EXPECT_NEAR(meter.Total().mean_rate.value(), 1'052'800, 1);
}

TEST(Status, RecentRateShowsAStall) {
  StatusMeter meter(TestPlan());
  for (int i = 0; i < 100; ++i) {
    meter.Read(Counted(static_cast<std::uint64_t>(i) + 1), i * 10ms);
  }
  meter.Read(Counted(100), 5s);
  meter.Read(Counted(100), 8s);
  EXPECT_EQ(meter.Total().recent_rate, 0);
}

TEST(Status, WithoutAnEndThereIsNoShare) {
  PlayPlan plan = TestPlan();
  plan.rounds.total_bytes.reset();
  StatusMeter meter(plan);
  meter.Read(Counted(5), 1s);
  EXPECT_FALSE(meter.Total().share);
  EXPECT_FALSE(meter.Total().remaining);
}

TEST(TimeLine, InOrderOfTimeThenAsGiven) {
  TimeLine line({{20s, {ActionKind::kStop, 0s}},
                 {10s, {ActionKind::kLose, 0s}},
                 {10s, {ActionKind::kPause, 2s}}});
  EXPECT_EQ(line.NextTime(), 10s);
  EXPECT_FALSE(line.TakeDue(9999ms));
  EXPECT_EQ(line.TakeDue(10s)->kind, ActionKind::kLose);
  EXPECT_EQ(line.TakeDue(10s)->kind, ActionKind::kPause);
  line.Add({12s, {ActionKind::kResume, 0s}});
  EXPECT_EQ(line.TakeDue(30s)->kind, ActionKind::kResume);
  EXPECT_EQ(line.TakeDue(30s)->kind, ActionKind::kStop);
  EXPECT_FALSE(line.TakeDue(30s));
  EXPECT_FALSE(line.NextTime());
}

}  // namespace
}  // namespace ipplay
