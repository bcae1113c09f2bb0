// SPDX-License-Identifier: MIT
// What the wire cannot choose: the draw behind a request, and indices that take years to reach.
#include "payload/error_insertion_manager.h"

#include <gtest/gtest.h>

#include <utility>

#include "platform/random.h"
#include "protocol/pdu.h"

namespace ipplayout {
namespace {

const std::uint32_t kRtp = IPPLAYOUT_RTP;

TEST(ErrorInsertionManagerTest, ARequestedSequenceErrorDrawsItsDistance) {
  const struct {
    std::uint32_t draw;
    std::uint64_t due;
  } cases[] = {{0, 2}, {327, 2}, {328, 2}, {983, 2}, {984, 3}, {16384, 50}, {32767, 100}};
  for (const auto& [draw, due] : cases) {
    std::uint64_t seed = 0;
    do {
      platform::ProcessRandom().Seed(++seed);
    } while (platform::ProcessRandom().Next() != draw);
    platform::ProcessRandom().Seed(seed);
    CErrorInsertionManager errors(kRtp, platform::ProcessRandom());
    errors.PrepareForPacket(0);
    errors.GenerateSequenceError();
    ASSERT_EQ(errors.IsSequenceError(1), 1U);
    PDU frame(16);
    errors.HoldFrame(frame, 0);
    std::uint64_t index = 1;
    for (errors.PrepareForPacket(index); errors.GetHeldFrame(0) == nullptr && index < 200;) {
      errors.PrepareForPacket(++index);
    }
    EXPECT_EQ(index, due) << draw;
  }
}

TEST(ErrorInsertionManagerTest, ALookTakesNoRequest) {
  CErrorInsertionManager errors(kRtp, platform::ProcessRandom());
  errors.PrepareForPacket(0);
  errors.GeneratePacketLoss();
  for (const auto& [consume, lost] : {std::pair(0, 1U), std::pair(1, 1U), std::pair(1, 0U)}) {
    EXPECT_EQ(errors.IsPacketLoss(consume), lost);
  }
}

TEST(ErrorInsertionManagerTest, HeldFramesAreFoundWhereTheirIndexWraps) {
  CErrorInsertionManager errors(kRtp, platform::ProcessRandom());
  errors.Configure({1, 0, 0, 0, 1, 1, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0});
  PDU frame(16);
  errors.PrepareForPacket(0xFFFFFFFF);  // the first of the second range
  ASSERT_EQ(errors.IsSequenceError(1), 1U);
  errors.HoldFrame(frame, 0);
  errors.PrepareForPacket(0x100000000);
  EXPECT_NE(errors.GetHeldFrame(0), nullptr);
  EXPECT_EQ(errors.GetHeldFrame(1), nullptr);
  errors.ReleaseHeldFrame(0);
  EXPECT_EQ(errors.GetHeldFrame(0), nullptr);
}

TEST(ErrorInsertionManagerTest, OfTwoFramesThatAreDueTogetherTheFirstIsKept) {
  CErrorInsertionManager errors(kRtp, platform::ProcessRandom());
  PDU frame(1);
  for (const auto index : {std::uint8_t{0}, std::uint8_t{1}}) {
    errors.PrepareForPacket(index);
    errors.DelayNext(2U - index);
    ASSERT_EQ(errors.IsSequenceError(1), 1U);
    frame.WriteByte(index, 0);
    errors.HoldFrame(frame, 0);
  }
  EXPECT_EQ(errors.HeldFrames(), 1U);
  errors.PrepareForPacket(3);
  ASSERT_NE(errors.GetHeldFrame(0), nullptr);
  EXPECT_EQ(errors.GetHeldFrame(0)->Data()[0], 0);
}

TEST(ErrorInsertionManagerTest, HoldsNoMoreThanItsRoom) {
  constexpr std::uint32_t kFrameBytes = 1U << 20;
  constexpr std::uint64_t kFrames = CErrorInsertionManager::kMostHeldBytes / kFrameBytes;
  CErrorInsertionManager errors(kRtp, platform::ProcessRandom());
  // All of them are late, and none is due while they come.
  errors.Configure({1, 0, 0, 0, 1, 1, 1, kFrames + 9, 0, 0, 0, 0, 0});
  PDU frame(kFrameBytes);
  const auto hold = [&](std::uint64_t index) {
    errors.PrepareForPacket(index);
    return errors.HoldFrame(frame, 0);
  };
  std::uint64_t held = 0;
  while (held < kFrames + 5 && hold(held)) {
    ++held;
  }
  EXPECT_EQ(held, kFrames - 1);  // what it takes to hold them is counted, too
  errors.PrepareForPacket(kFrames + 10);
  ASSERT_NE(errors.GetHeldFrame(0), nullptr);
  errors.ReleaseHeldFrame(0);
  EXPECT_TRUE(hold(kFrames + 10));
  EXPECT_FALSE(hold(kFrames + 11));
  errors.Reset();
  EXPECT_TRUE(hold(0));
}

}  // namespace
}  // namespace ipplayout
