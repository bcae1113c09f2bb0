// SPDX-License-Identifier: MIT
#include "host/measure/figures/event_log.h"

#include <gtest/gtest.h>

namespace ipplay::measure {
namespace {

struct Counting : EventSink {
  void Report(const Event& event) override { sum += event.amount; }
  std::int64_t sum = 0;
};

TEST(EventLog, KeepsBothEndsOfEachKindAndCountsAll) {
  EventLog log;
  Counting next;
  log.ForwardTo(&next);
  for (std::int64_t i = 1; i <= 1000; ++i) {
    log.Report({.time_ns = i, .kind = EventKind::kLoss, .amount = 1});
  }
  log.Report({.time_ns = 500, .kind = EventKind::kSilence});
  EXPECT_EQ(log.Count(), 1001U);
  EXPECT_EQ(log.CountOf(EventKind::kLoss), 1000U);
  EXPECT_EQ(log.LeftOut(), 800U);
  EXPECT_EQ(next.sum, 1000);
  std::vector<std::int64_t> times;
  for (const Event& event : log.Kept()) {
    times.push_back(event.time_ns);
  }
  std::vector<std::int64_t> expected;
  for (std::int64_t i = 1; i <= 100; ++i) {
    expected.push_back(i);
  }
  expected.push_back(500);
  for (std::int64_t i = 901; i <= 1000; ++i) {
    expected.push_back(i);
  }
  EXPECT_EQ(times, expected);
}

}  // namespace
}  // namespace ipplay::measure
