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
  for (const std::int64_t losses : {250, 1000}) {
    EventLog log;
    Counting next;
    log.ForwardTo(&next);
    for (std::int64_t i = 1; i <= losses; ++i) {
      log.Report({.time_ns = i, .kind = EventKind::kLoss, .amount = 1});
    }
    log.Report({.time_ns = 125, .kind = EventKind::kSilence});
    EXPECT_EQ(log.Count(), static_cast<std::uint64_t>(losses + 1));
    EXPECT_EQ(log.CountOf(EventKind::kLoss), static_cast<std::uint64_t>(losses));
    EXPECT_EQ(log.LeftOut(), static_cast<std::uint64_t>(losses - 200));
    EXPECT_EQ(next.sum, losses);
    std::vector<std::int64_t> times;
    for (const Event& event : log.Kept()) {
      times.push_back(event.time_ns);
    }
    std::vector<std::int64_t> expected;
    for (std::int64_t i = 1; i <= 100; ++i) {
      expected.push_back(i);
    }
    expected.push_back(125);
    for (std::int64_t i = losses - 99; i <= losses; ++i) {
      expected.push_back(i);
    }
    EXPECT_EQ(times, expected);
  }
}

}  // namespace
}  // namespace ipplay::measure
