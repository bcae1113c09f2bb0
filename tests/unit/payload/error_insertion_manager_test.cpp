#include "payload/error_insertion_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/random.h"
#include "protocol/ethernet_layer.h"
#include "tests/support/recording_sender.h"

namespace ipplayout {
namespace {

using testing::ElementsAre;

bool rtp = true;

// Datagrams through an Ethernet layer; byte 14 tells which one a frame is, byte 15 which copy.
class ErrorInsertionManagerTest : public testing::Test {
 protected:
  ErrorInsertionManagerTest() { rtp = true; }

  void Configure(const ErrorInsertion& settings) { errors_.Configure(settings); }

  void Send(int datagrams, int copies = 1) {
    EthernetFlowSpec spec;
    spec.errors = &errors_;
    EthernetDataFlowOut layer(spec, &wire_);
    layer.SetReplicationManager(copies > 1 ? &replication_ : nullptr);
    replication_.SetIncrements({}, copies - 1);
    for (const int end = next_ + datagrams; next_ < end; ++next_) {
      replication_.StartDatagram();
      errors_.PrepareForPacket(static_cast<std::uint64_t>(next_));
      for (int copy = 0; copy < copies; ++copy) {
        PDU frame(16);
        frame.WriteByte(static_cast<std::uint8_t>(next_), 14);
        frame.WriteByte(static_cast<std::uint8_t>(copy), 15);
        ASSERT_TRUE(layer.Send(frame));
        replication_.NextCopy();
      }
    }
  }

  // Numbers of the datagrams on the wire, in their order.
  std::vector<int> Order(int copy = 0) const {
    std::vector<int> order;
    for (const Bytes& frame : wire_.frames) {
      if (frame[15] == copy) {
        order.push_back(frame[14]);
      }
    }
    return order;
  }

  ErrorStatistics Statistics() const {
    ErrorStatistics statistics;
    errors_.CopyStatistics(statistics);
    return statistics;
  }

  CErrorInsertionManager errors_{[] { return rtp; }};
  CZebReplicationMgr replication_;
  RecordingSender wire_;
  int next_ = 0;
};

// In the order of the record: loss 2 of 10, and so on.
ErrorInsertion Loss(std::uint32_t count, std::uint32_t range) {
  return {1, 1, count, range, 0, 0, 0, 0, 0, 0, 0, 0, 0};
}
ErrorInsertion Late(std::uint32_t count, std::uint32_t range, std::uint32_t distance) {
  return {1, 0, 0, 0, 1, count, range, distance, 0, 0, 0, 0, 0};
}

TEST_F(ErrorInsertionManagerTest, WireOrderUnderScheduledErrors) {
  ErrorInsertion both = Late(1, 5, 1);
  both.PacketLossEnabled = 1;
  both.NumPacketLoss = 1;
  both.PacketLossRange = 5;
  ErrorInsertion off = Loss(1, 2);
  off.ErrInsertionEnable = 0;
  const struct {
    const char* what;
    ErrorInsertion settings;
    std::vector<int> order;
    std::uint64_t late;
  } cases[] = {
      {"loss", Loss(2, 10), {2, 3, 4, 5, 6, 7, 8, 9, 12, 13}, 0},
      {"switched off", off, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 0},
      {"distance 0", Late(1, 10, 0), {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 2},
      {"distance 1", Late(1, 10, 1), {1, 0, 2, 3, 4, 5, 6, 7, 8, 9, 11, 10, 12, 13}, 2},
      {"distance 2", Late(1, 10, 2), {1, 2, 0, 3, 4, 5, 6, 7, 8, 9, 11, 12, 10, 13}, 2},
      // Neither is held beyond the end: 10 and 11 would be due with 15 and 16.
      {"two late", Late(2, 10, 4), {2, 3, 4, 0, 5, 1, 6, 7, 8, 9, 12, 13}, 4},
      // Loss wins, and the sequence error is spent on what is lost.
      {"loss and late", both, {1, 2, 3, 4, 6, 7, 8, 9, 11, 12, 13}, 0},
  };
  for (const auto& [what, settings, order, late] : cases) {
    Configure(settings);
    next_ = 0;
    wire_.frames.clear();
    Send(14);
    EXPECT_EQ(Order(), order) << what;
    EXPECT_EQ(Statistics().sequence_errors, late) << what;
    errors_.Reset();
    EXPECT_EQ(Statistics().sequence_errors, late) << what;
  }
}

TEST_F(ErrorInsertionManagerTest, SequenceErrorsNeedRtp) {
  rtp = false;
  Configure(Late(1, 4, 1));
  errors_.GenerateSequenceError();
  Send(4);
  EXPECT_THAT(Order(), ElementsAre(0, 1, 2, 3));
}

TEST_F(ErrorInsertionManagerTest, CopiesShareTheFateOfTheFirst) {
  ErrorInsertion settings = Late(1, 4, 1);
  Configure(settings);
  Send(1, 3);
  errors_.GeneratePacketLoss();
  Send(3, 3);  // 1 is lost, 0 is due before 2
  for (const int copy : {0, 1, 2}) {
    EXPECT_THAT(Order(copy), ElementsAre(0, 2, 3)) << copy;
  }
  EXPECT_EQ(Statistics().sequence_errors, 1U);
}

TEST_F(ErrorInsertionManagerTest, OneShotRequestsDamageOneDatagramWithoutTheMainSwitch) {
  Send(1);
  errors_.GeneratePacketLoss();
  errors_.GeneratePacketLoss();
  EXPECT_EQ(errors_.IsPacketLoss(0), 1U);  // only looks
  Send(3);
  EXPECT_THAT(Order(), ElementsAre(0, 2, 3));
  errors_.GenerateIPChecksumError();
  errors_.GenerateUDPChecksumError();
  EXPECT_EQ(errors_.IsIpChecksumError(1), 1U);
  EXPECT_EQ(errors_.IsIpChecksumError(1), 0U);
  EXPECT_EQ(errors_.IsUdpChecksumError(1), 1U);
  EXPECT_EQ(errors_.IsUdpChecksumError(1), 0U);
  errors_.GeneratePacketLoss();
  errors_.GenerateSequenceError();
  errors_.Reset();
  Send(1);
  EXPECT_THAT(Order(), ElementsAre(0, 2, 3, 4));
}

// One frame is held behind 1 to 99 later ones, as the draw says.
TEST_F(ErrorInsertionManagerTest, AOneShotSequenceErrorDrawsItsDistance) {
  const struct {
    std::uint32_t draw;
    int before;  // the datagram that the late one leaves right before
  } cases[] = {{0, 2}, {327, 2}, {983, 2}, {984, 3}, {16384, 50}, {32767, 100}};
  for (const auto& [draw, before] : cases) {
    std::uint64_t seed = 0;
    do {
      platform::SeedRandom(++seed);
    } while (platform::NextRandom() != draw);
    platform::SeedRandom(seed);
    next_ = 0;
    wire_.frames.clear();
    errors_.GenerateSequenceError();
    Send(110);
    const std::vector<int> order = Order();
    ASSERT_EQ(order.size(), 110U);
    EXPECT_EQ(order[static_cast<std::size_t>(before) - 1], 0) << draw;
    EXPECT_EQ(order[static_cast<std::size_t>(before)], before) << draw;
  }
}

TEST_F(ErrorInsertionManagerTest, ChecksumErrorsGoWhereTheirTypeSays) {
  for (const std::uint32_t type : {0U, 1U, 2U}) {
    Configure({1, 0, 0, 0, 0, 0, 0, 0, 1, type, 1, 4, 0});
    for (std::uint64_t index = 0; index < 9; ++index) {
      errors_.PrepareForPacket(index);
      EXPECT_EQ(errors_.IsIpChecksumError(1), type == 0 && index % 4 == 0 ? 1U : 0U) << type;
      EXPECT_EQ(errors_.IsUdpChecksumError(1), type == 1 && index % 4 == 0 ? 1U : 0U) << type;
    }
  }
}

TEST_F(ErrorInsertionManagerTest, HeldFramesAreFoundWhereTheirIndexWraps) {
  Configure(Late(1, 0xFFFFFFFF, 0));
  PDU frame(16);
  errors_.PrepareForPacket(0xFFFFFFFF);  // the first of the second range
  ASSERT_EQ(errors_.IsSequenceError(1), 1U);
  errors_.HoldFrame(frame, 0);
  errors_.PrepareForPacket(0x100000000);
  EXPECT_NE(errors_.GetHeldFrame(0), nullptr);
  EXPECT_EQ(errors_.GetHeldFrame(1), nullptr);
  errors_.ReleaseHeldFrame(0);
  EXPECT_EQ(errors_.GetHeldFrame(0), nullptr);
}

}  // namespace
}  // namespace ipplayout
