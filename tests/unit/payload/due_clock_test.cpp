// SPDX-License-Identifier: MIT
#include "payload/due_clock.h"

#include <gtest/gtest.h>

namespace ipplayout {
namespace {

using std::chrono::hours;
using std::chrono::nanoseconds;
using std::chrono::seconds;

TEST(DueClock, IsExactAtAnyTime) {
  const struct {
    std::uint32_t first;
    nanoseconds due;
    std::uint32_t timestamp;
  } kRows[] = {
      {0, nanoseconds(0), 0},
      {0, nanoseconds(11'111), 0},  // a tick lasts 11,111.1 ns
      {0, nanoseconds(11'112), 1},
      {7, seconds(1), 90'007},
      {0, hours(13), 4'212'000'000},
      {0, hours(14), 241'032'704},  // 4,536,000,000 modulo 2^32
      {0xFFFFFFFF, seconds(1), 89'999},
      {0, hours(24) * 36500 + nanoseconds(11'112), 3'971'145'729},  // a century, and a tick
      {100, -seconds(1), 4'294'877'396},                            // 100 - 90,000
      {100, nanoseconds(-1), 99},
  };
  for (const auto& row : kRows) {
    DueClock clock(row.first);
    clock.Set(row.due);
    std::uint32_t timestamp = 0;
    EXPECT_TRUE(clock.NextTimestamp(&timestamp));
    EXPECT_EQ(timestamp, row.timestamp) << row.due.count();
  }
}

}  // namespace
}  // namespace ipplayout
