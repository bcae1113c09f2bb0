// SPDX-License-Identifier: MIT
// Pump and transmitter in turn, on one thread and a clock that only waiting moves.
#include "transmit/pcap_rt_interface.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "protocol/pdu.h"
#include "tests/support/blocked_call.h"
#include "tests/support/fake_driver.h"
#include "tests/support/fake_waiter.h"

namespace ipplayout {
namespace {

using Bytes = std::vector<std::uint8_t>;

using std::chrono::milliseconds;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

class PcapRtInterfaceTest : public testing::Test {
 protected:
  static constexpr std::uint32_t kFrame = 1250;  // 1 ms at 10 Mbit/s

  PcapRtInterfaceTest() { interface_.SetWaiter(&waiter_); }

  void Prepare(std::uint32_t frames) {
    ASSERT_TRUE(interface_.Open());
    interface_.SetQueuedMode(1);
    interface_.SetPacketsPerQueue(frames);
    interface_.SetBitRate(10e6);
    interface_.SetFrameSize(kFrame);
    ASSERT_TRUE(interface_.FilterInclude() && interface_.HasQueues());
  }
  bool Send(std::uint32_t length = kFrame) {
    PDU frame(length);
    return interface_.Send(frame);
  }
  void SendBatch(std::uint32_t frames) {
    for (std::uint32_t i = 0; i < frames; ++i) {
      ASSERT_TRUE(Send());
    }
  }
  int Transmit() {
    interface_.WaitForQueue();
    return interface_.TransmitQueue();
  }
  // Microseconds between the last two frames that left.
  std::int64_t LastGap() const {
    const std::vector<SentFrame> sent = driver_.Sent();
    return (sent.back().time - sent.at(sent.size() - 2).time) / std::chrono::microseconds(1);
  }

  FakeDriver driver_;
  FakeWaiter waiter_;
  PcapRtInterface interface_{"rpcap://fake", 1, driver_};
};

TEST_F(PcapRtInterfaceTest, OpensAnEthernetAdapterOnly) {
  driver_.data_link = 113;
  EXPECT_FALSE(interface_.Open() || interface_.FilterInclude());
  EXPECT_EQ(driver_.OpenHandles(), 0);
  driver_.data_link = CaptureHandle::kEthernetDataLink;
  driver_.refuse_open = true;
  EXPECT_FALSE(interface_.Open() || interface_.FilterInclude());
  driver_.refuse_open = false;
  Prepare(1);
  const OpenCall call = driver_.Opened().back();
  EXPECT_EQ(call.name, "rpcap://fake");
  EXPECT_TRUE(call.options.promiscuous);
  EXPECT_EQ(call.options.buffer_bytes, 10485760);
  using Stage = FilterResult::Stage;
  for (const auto& [stage, call_name] :
       {std::pair(Stage::kCompile, "pcap_compile"), {Stage::kSet, "pcap_setfilter"}}) {
    driver_.filter_result = {stage, -1};
    CaptureStdout();
    EXPECT_FALSE(interface_.FilterInclude());
    EXPECT_EQ(GetCapturedStdout(), "PcapInterface::FilterInclude: " + std::string(call_name) +
                                       " failed with result -1\n");
  }
  interface_.Close();
  EXPECT_EQ(driver_.OpenHandles(), 0);
}

TEST_F(PcapRtInterfaceTest, HandsOverWholeBatchesAndFlushesTheRest) {
  for (const std::uint32_t frames : {1U, 3U}) {
    Prepare(frames);
    const std::size_t before = driver_.Sent().size();
    SendBatch(frames);
    SendBatch(frames - 1);  // the next batch fills while this one waits
    EXPECT_EQ(driver_.Sent().size(), before);
    EXPECT_EQ(Transmit(), 1);
    EXPECT_EQ(driver_.Sent().size(), before + frames);
    interface_.FlushLastQueue();
    EXPECT_EQ(driver_.Sent().size(), before + 2 * frames - 1);
    EXPECT_TRUE(interface_.IsFinished());
    EXPECT_EQ(Transmit(), 1);  // woken by the flush, and nothing left to send
  }
}

// A correction is known when a batch is handed over, and counts for the frames queued after it.
TEST_F(PcapRtInterfaceTest, ACorrectionChangesTheGapOfTheBatchAfterNext) {
  const std::pair<double, int> cases[] = {{0.0004, 600}, {-0.0005, 1500}, {0.0021, 0}, {0.001, 0}};
  for (const auto& [correction, corrected_gap] : cases) {
    Prepare(3);
    for (const int gap : {1000, 1000, corrected_gap}) {
      SendBatch(3);
      interface_.SetGapCorrection(Seconds(correction));
      Transmit();
      EXPECT_EQ(LastGap(), gap);
    }
    interface_.Close();
  }
}

// The pump is of the idle class here: on the same processor a transmitter that it wakes goes before
// it, and corrects the next batch before the pump goes on from this one.
TEST_F(PcapRtInterfaceTest, ACorrectionIsTakenBeforeTheHandOver) {
  constexpr int kBatches = 300;
  const auto stay_on_one_processor = [] {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(::sched_getcpu()), &one);
    ::sched_setaffinity(0, sizeof one, &one);
  };
  Prepare(2);
  std::binary_semaphore handed(0);
  auto pump = OnAnotherThread([&] {
    stay_on_one_processor();
    auto transmitter = OnAnotherThread([&] {  // on the same one
      for (int batch = 0; batch < kBatches; ++batch) {
        interface_.WaitForQueue();
        interface_.SetGapCorrection(Seconds(0.0005));
        handed.acquire();
        interface_.SetGapCorrection(Seconds(0));
        interface_.TransmitQueue();
      }
    });
    const sched_param none{};
    ::sched_setscheduler(0, SCHED_IDLE, &none);
    for (int batch = 0; batch < kBatches; ++batch) {
      SendBatch(2);
      handed.release();
    }
    transmitter.get();
  });
  ASSERT_TRUE(Returns(pump));
  EXPECT_EQ(driver_.Stamps(), std::vector(kBatches, std::vector{0, 1000}));
}

// Batches of 10 frames of 1 ms: 4 ms of lag are made up for by 3.6 of them.
TEST_F(PcapRtInterfaceTest, ThePumpGoesNoFurtherAheadThanTheLagPaysFor) {
  const std::pair<double, std::uint32_t> cases[] = {{0, 1}, {0.0005, 1}, {0.004, 3}, {1, 48}};
  for (const auto& [correction, batches] : cases) {
    SCOPED_TRACE(correction);
    Prepare(10);
    interface_.SetGapCorrection(Seconds(correction));
    auto ahead = OnAnotherThread([this, frames = 10 * batches] { SendBatch(frames); });
    ASSERT_TRUE(Returns(ahead));
    auto next = OnAnotherThread([this] { SendBatch(10); });
    EXPECT_TRUE(Blocks(next));
    for (std::uint32_t i = 0; i < batches; ++i) {
      Transmit();
    }
    EXPECT_TRUE(Returns(next));
    interface_.Close();
  }
}

TEST_F(PcapRtInterfaceTest, FramesBeyondTheQueuesRoomAreRefused) {
  const struct {
    std::uint32_t frames;
    std::uint32_t length;
    std::uint32_t accepted;
  } cases[] = {{0, kFrame, 0}, {3, kFrame + 8, 3}, {3, kFrame + 9, 2}};
  for (const auto& [frames, length, accepted] : cases) {
    Prepare(frames);
    CaptureStdout();
    std::uint32_t taken = 0;
    while (taken < 3 && Send(length)) {
      ++taken;
    }
    EXPECT_EQ(taken, accepted);
    EXPECT_EQ(
        GetCapturedStdout(),
        taken == 3 ? "" : "Warning: packet buffer too small, not all the packets will be sent.\n");
  }
}

TEST_F(PcapRtInterfaceTest, AShortTransmissionEndsTheRun) {
  Prepare(3);
  SendBatch(3);
  SendBatch(2);
  driver_.RefuseAfter(2);
  CaptureStdout();
  EXPECT_EQ(Transmit(), 0);
  EXPECT_EQ(GetCapturedStdout(),  // two frames behind 16 bytes of header each
            "An error occurred sending the packets:  Only 2532 bytes were sent\n");
  EXPECT_TRUE(interface_.IsFinished());
  driver_.AcceptAll();
  EXPECT_FALSE(Send());
  EXPECT_EQ(driver_.Sent().size(), 2U);
  EXPECT_EQ(interface_.FramesNotSent(), 3U);
  ASSERT_TRUE(interface_.FilterInclude());  // a new run
  EXPECT_TRUE(Send());
  driver_.RefuseAfter(0);
  CaptureStdout();
  interface_.FlushLastQueue();  // is only reported
  EXPECT_EQ(GetCapturedStdout(),
            "An error occurred sending the packets:  Only 0 bytes were sent\n");
}

// The frame that completes a batch while the one before it fails counts as sent; the next is
// refused.
TEST_F(PcapRtInterfaceTest, AFailureDuringAHandOverIsTheNextFramesResult) {
  Prepare(2);
  SendBatch(3);
  auto completing = OnAnotherThread([this] { return Send(); });
  while (interface_.FramesNotSent() < 4) {  // taken: what fails from here on is not its own failure
    std::this_thread::yield();
  }
  driver_.RefuseAfter(0);
  CaptureStdout();
  EXPECT_EQ(Transmit(), 0);
  EXPECT_TRUE(completing.get());
  EXPECT_FALSE(Send());
  interface_.FlushLastQueue();
  const std::string lost = "An error occurred sending the packets:  Only 0 bytes were sent\n";
  EXPECT_EQ(GetCapturedStdout(), lost + lost);  // one for each batch
  EXPECT_EQ(interface_.FramesNotSent(), 4U);
}

TEST_F(PcapRtInterfaceTest, DirectModeSendsEachFrameAtOnce) {
  interface_.SetQueuedMode(0);
  EXPECT_FALSE(Send());  // not open
  ASSERT_TRUE(interface_.Open() && interface_.FilterInclude());
  EXPECT_TRUE(Send(42));
  EXPECT_EQ(driver_.Sent().back().bytes.size(), 42U);
  driver_.RefuseAfter(0);
  EXPECT_FALSE(Send());
  EXPECT_EQ(interface_.TransmitQueue(), 1);
}

TEST_F(PcapRtInterfaceTest, ReceivesFramesWithTimeAndIndex) {
  EXPECT_EQ(interface_.Receive(milliseconds(0)), nullptr);
  ASSERT_TRUE(interface_.Open());
  EXPECT_EQ(interface_.Receive(milliseconds(0)), nullptr);
  driver_.QueueReceived(Bytes(60, 1), 2, 3);
  driver_.QueueReceived(Bytes(61, 2), 2, 4);
  driver_.QueueReceived(Bytes(62, 3), 2, 5);
  const auto first = interface_.Receive(milliseconds(0));
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->Bytes(), Bytes(60, 1));
  EXPECT_EQ(first->ReceiveTime(), 2000003000U);
  EXPECT_EQ(first->ReceiveIndex(), 0U);
  interface_.SetAcceptFilter([](const Packet& frame) { return frame.PayloadLength() == 48; });
  const auto accepted = interface_.Receive(std::chrono::seconds(20));
  ASSERT_NE(accepted, nullptr);
  EXPECT_EQ(accepted->ReceiveIndex(), 2U);
  EXPECT_TRUE(interface_.SendShared(accepted));
  EXPECT_EQ(driver_.Sent().back().bytes, Bytes(62, 3));
  driver_.QueueReceived(Bytes(60, 1));
  EXPECT_TRUE(interface_.DiscardReceived(false));
  EXPECT_FALSE(interface_.DiscardReceived(true));
  EXPECT_EQ(interface_.Receive(milliseconds(0)), nullptr);
}

}  // namespace
}  // namespace ipplayout
