// SPDX-License-Identifier: MIT
#include "transmit/batch_hand_over.h"

#include <gtest/gtest.h>

#include <thread>

namespace ipplayout {
namespace {

void Fill(BatchHandOver& hand_over, std::uint32_t number) {
  std::uint8_t bytes[4] = {};
  ASSERT_TRUE(hand_over.Filling().Append({number, 0, sizeof bytes, sizeof bytes}, bytes));
}

TEST(BatchHandOverTest, BatchesArriveWholeAndInOrder) {
  constexpr std::uint32_t kBatches = 100000;
  BatchHandOver hand_over;
  ASSERT_TRUE(hand_over.Allocate(3, 20));
  std::thread pump([&hand_over] {
    for (std::uint32_t number = 0; number < kBatches; ++number) {
      Fill(hand_over, number);
      hand_over.WaitForRoom(number / 100 % 2 == 0 ? 1 : 3);
      hand_over.HandOver(Seconds(number));
    }
    hand_over.WaitUntilEmpty();
    hand_over.Wake();
  });
  std::uint32_t number = 0;
  for (hand_over.Wait(); hand_over.HasBatch(); hand_over.Wait()) {
    if (number % 2 == 0) {
      hand_over.Pass();
    }
    const Batch& batch = hand_over.Front();
    ASSERT_EQ(batch.frames->Used(), 20U);
    ASSERT_EQ(batch.frames->At(0).header.seconds, number);
    ASSERT_EQ(batch.jitter_sum.count(), number++);
    hand_over.Release();
  }
  pump.join();
  EXPECT_EQ(number, kBatches);
}

}  // namespace
}  // namespace ipplayout
