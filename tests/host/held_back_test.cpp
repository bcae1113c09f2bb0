// SPDX-License-Identifier: MIT
#include "host/play/held_back.h"

#include <gtest/gtest.h>

namespace ipplay {
namespace {

TEST(HeldBack, DelayedDatagramsThatWereNotDueAtTheEnd) {
  const struct {
    std::uint32_t count, range, distance, lost_count, lost_range;
    std::uint64_t datagrams, held;
  } cases[] = {
      {1, 10, 3, 0, 0, 14, 1},         // of 0 and 10, the latter due with 14
      {1, 10, 3, 0, 0, 15, 0},         // and there it is
      {2, 9, 6, 0, 0, 20, 2},          // 18 and 19
      {4, 4, 100, 0, 0, 12, 12},       // all of a run that is shorter than the delay
      {5, 5, 1, 0, 0, 12, 2},          // all of the last two
      {2, 5, 4, 1, 5, 17, 1},          // of 15 and 16 the first is lost
      {1, 10, 0xFFFFFFFF, 0, 0, 3, 1}  // the distance does not wrap
  };
  for (const auto& c : cases) {
    ErrorInsertion errors{};
    errors.PacketLossEnabled = c.lost_range == 0 ? IPPLAYOUT_OFF : IPPLAYOUT_ON;
    errors.NumPacketLoss = c.lost_count;
    errors.PacketLossRange = c.lost_range;
    errors.NumSequenceError = c.count;
    errors.SequenceErrorRange = c.range;
    errors.SequenceErrorDistance = c.distance;
    PlayoutStatistics counters{};
    EXPECT_EQ(HeldBackAtEnd(errors, counters, true), 0U);  // nothing was delayed
    counters.DatagramsSent = c.datagrams;
    counters.SequenceErrors = 1;
    EXPECT_EQ(HeldBackAtEnd(errors, counters, false), c.held) << &c - cases;
    EXPECT_FALSE(HeldBackAtEnd(errors, counters, true));
    errors.RandomizeErrors = IPPLAYOUT_ON;
    EXPECT_FALSE(HeldBackAtEnd(errors, counters, false));
  }
}

}  // namespace
}  // namespace ipplay
