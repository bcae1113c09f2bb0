// SPDX-License-Identifier: MIT
#include "transmit/frame_ring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace ipplayout {
namespace {

bool Push(FrameRing& ring, std::uint64_t datagram, std::uint32_t length = 4) {
  std::vector<std::uint8_t> bytes(length, static_cast<std::uint8_t>(datagram));
  QueuedFrame frame;
  frame.datagram = datagram;
  frame.length = length;
  return ring.Push(frame, bytes.data());
}

TEST(FrameRing, GivesFramesBackInOrderRoundAndRound) {
  FrameRing ring(7, 100);  // of exactly so many frames
  EXPECT_EQ(ring.Capacity(), 7U);
  std::uint64_t next = 0;
  for (int round = 0; round < 5; ++round) {
    for (std::uint64_t i = 0; i < 6; ++i) {
      ASSERT_TRUE(ring.HasRoom(1));
      Push(ring, next + i, static_cast<std::uint32_t>(1 + 99 * (i % 2)));
    }
    EXPECT_EQ(ring.Waiting(), 6U);
    std::vector<const QueuedFrame*> taken;
    while (const QueuedFrame* frame = ring.Front()) {
      ring.Take();
      taken.push_back(frame);
    }
    ASSERT_EQ(taken.size(), 6U);
    for (const QueuedFrame* frame : taken) {  // valid until released
      EXPECT_EQ(frame->datagram, next);
      const auto bytes = FrameRing::BytesOf(*frame);
      EXPECT_EQ(bytes.size(), frame->length);
      EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(),
                              [&](std::uint8_t byte) { return byte == next % 256; }));
      ++next;
    }
    EXPECT_FALSE(ring.HasRoom(2));  // taken is not released
    ring.ReleaseTaken();
    EXPECT_TRUE(ring.HasRoom(7));
  }
}

TEST(FrameRing, CallsTheBuilderOnceWhenHalfIsFree) {
  FrameRing ring(8, 4);
  for (std::uint64_t i = 0; i < 8; ++i) {
    Push(ring, i);
  }
  EXPECT_FALSE(ring.HasRoom(1));
  std::vector<bool> called;
  for (int i = 0; i < 8; ++i) {
    ring.Take();
    called.push_back(ring.ReleaseTaken());
  }
  EXPECT_EQ(called, (std::vector<bool>{false, false, false, true, false, false, false, false}));
  EXPECT_FALSE(ring.ReleaseTaken());  // nothing to release
}

TEST(FrameRing, CallsTheTransmitterOnceForAFrameThatItWaitsFor) {
  FrameRing ring(8, 4);
  EXPECT_FALSE(Push(ring, 0));  // nobody waits
  EXPECT_FALSE(ring.AwaitFrame());
  ring.Take();
  EXPECT_TRUE(ring.AwaitFrame());
  EXPECT_TRUE(Push(ring, 1));
  EXPECT_FALSE(Push(ring, 2));
}

// Both sides sleep only when the other one calls: a call that is lost hangs.
TEST(FrameRing, LosesNoCall) {
  FrameRing ring(4, 4);
  std::atomic<int> builder_calls{1};
  std::atomic<int> transmitter_calls{1};
  const auto await = [](std::atomic<int>& calls) {
    while (calls.exchange(0) == 0) {
      calls.wait(0);
    }
  };
  const auto call = [](std::atomic<int>& calls) {
    calls.fetch_add(1);
    calls.notify_one();
  };
  constexpr std::uint64_t kFrames = 20'000;
  std::thread builder([&] {
    for (std::uint64_t next = 0; next < kFrames;) {
      await(builder_calls);
      while (next < kFrames && ring.HasRoom(2)) {
        if (Push(ring, next++)) {
          call(transmitter_calls);
        }
      }
    }
  });
  for (std::uint64_t next = 0; next < kFrames;) {
    await(transmitter_calls);
    do {
      while (const QueuedFrame* frame = ring.Front()) {
        ASSERT_EQ(frame->datagram, next++);
        ring.Take();
        if (ring.ReleaseTaken()) {
          call(builder_calls);
        }
      }
    } while (!ring.AwaitFrame());
  }
  builder.join();
}

}  // namespace
}  // namespace ipplayout
