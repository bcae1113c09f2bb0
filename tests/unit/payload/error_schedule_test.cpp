// SPDX-License-Identifier: MIT
#include "payload/error_schedule.h"

#include <gtest/gtest.h>

#include <memory>

#include "platform/random.h"

namespace ipplayout {
namespace {

// Large: never on the stack.
std::unique_ptr<ErrorSchedule> Schedule(std::uint32_t count, std::uint32_t range, bool randomize) {
  auto schedule = std::make_unique<ErrorSchedule>();
  schedule->Configure(count, range, randomize);
  return schedule;
}

TEST(ErrorScheduleTest, EveryRangeHasItsExactCount) {
  const struct {
    std::uint32_t count;
    std::uint32_t range;
    std::uint32_t hits;
  } cases[] = {
      {0, 10, 0},
      {1, 1, 1},
      {5, 10, 5},
      {6, 10, 6},
      {15, 10, 10},
      {0x80000000, 10, 0},  // negative as a signed number
      {999, 1000, 999},
      // The generator reaches 32,767 positions, the last of them 131,076 at most.
      {32767, 100000, 32767},
      {40000, 131080, 40000},
      {91081, 131081, 91081},
      {140000, 300000, 140000},
      {299999, 300000, 299999},
  };
  platform::ProcessRandom().Seed(11);
  for (const auto& [count, range, hits] : cases) {
    for (const bool randomize : {false, true}) {
      const auto schedule = Schedule(count, range, randomize);
      std::uint64_t index = 0;
      for (int block = 0; block < 3; ++block) {
        std::uint32_t found = 0;
        for (std::uint32_t i = 0; i < range; ++i) {
          found += schedule->Hits(index++) ? 1U : 0U;
        }
        ASSERT_EQ(found, hits) << count << " of " << range << ", random " << randomize;
      }
    }
  }
}

// position = draw x range / 32767, the product in 32 bits, with 32767 drawn as 32766.
TEST(ErrorScheduleTest, ADrawIsAPositionOfTheWholeRange) {
  const struct {
    std::uint32_t draw;
    std::uint32_t range;
    std::uint32_t position;
  } cases[] = {
      {0, 10, 0},     {3276, 10, 0},           {3277, 10, 1},
      {32766, 10, 9}, {32767, 10, 9},          {16384, 100, 50},
      {32767, 2, 1},  {32766, 131080, 131075}, {32766, 200000, 68917},  // 6,553,200,000 less 2^32
  };
  for (const auto& [draw, range, position] : cases) {
    std::uint64_t seed = 0;
    do {
      platform::ProcessRandom().Seed(++seed);
    } while (platform::ProcessRandom().Next() != draw);
    platform::ProcessRandom().Seed(seed);
    const auto schedule = Schedule(1, range, true);
    for (std::uint32_t index = 0; index < range; ++index) {
      ASSERT_EQ(schedule->Hits(index), index == position) << draw << " of " << range << index;
    }
  }
}

}  // namespace
}  // namespace ipplayout
