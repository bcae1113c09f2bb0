#include "driver/send_queue.h"

#include <gtest/gtest.h>

#include <vector>

namespace ipplayout {
namespace {

FrameHeader HeaderFor(std::size_t size) {
  const auto length = static_cast<std::uint32_t>(size);
  return {1, 2, length, length};
}

TEST(SendQueue, TakesFramesUntilHeaderAndBytesNoLongerFit) {
  const std::vector<std::uint8_t> first{1, 2, 3};
  const std::vector<std::uint8_t> second{4, 5};
  const auto queue = SendQueue::Allocate(16 + 3 + 16 + 2);
  ASSERT_NE(queue, nullptr);
  EXPECT_TRUE(queue->Append(HeaderFor(3), first.data()));
  EXPECT_FALSE(queue->Append(HeaderFor(3), first.data()));  // one byte short
  EXPECT_EQ(queue->Used(), 19u);
  EXPECT_TRUE(queue->Append(HeaderFor(2), second.data()));
  EXPECT_EQ(queue->Used(), queue->Capacity());

  const SendQueue::Frame a = queue->At(0);
  EXPECT_EQ(std::vector(a.bytes.begin(), a.bytes.end()), first);
  EXPECT_EQ(a.header.seconds, 1u);
  const SendQueue::Frame b = queue->At(SendQueue::NextPosition(0, a));
  EXPECT_EQ(std::vector(b.bytes.begin(), b.bytes.end()), second);

  queue->Clear();
  EXPECT_EQ(queue->Used(), 0u);
  EXPECT_TRUE(queue->Append(HeaderFor(3), first.data()));
}

TEST(SendQueue, WithoutRoomTakesNothing) {
  const std::uint8_t byte = 0;
  const auto queue = SendQueue::Allocate(0);
  ASSERT_NE(queue, nullptr);
  EXPECT_FALSE(queue->Append(HeaderFor(0), &byte));
}

}  // namespace
}  // namespace ipplayout
