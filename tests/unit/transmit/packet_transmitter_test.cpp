#include "transmit/packet_transmitter.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "protocol/pdu.h"
#include "tests/support/blocked_call.h"
#include "tests/support/fake_driver.h"
#include "tests/support/fake_waiter.h"
#include "transmit/pcap_rt_interface.h"
#include "transmit/trace_log.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;

// The test stands for the pump.
class PacketTransmitterTest : public testing::Test {
 protected:
  PacketTransmitterTest() {
    OsaTraceSilent = true;
    interface_.SetWaiter(&waiter_);
    interface_.SetParametricManager(&parameters_);
    interface_.Open();
    transmitter_.SetInterface(&interface_);
    transmitter_.SetParametricManager(&parameters_);
  }
  ~PacketTransmitterTest() override {
    transmitter_.Stop();
    transmitter_.Join();
    OsaTraceSilent = false;
  }

  // With frames of 1,250 bytes: 1 ms each at 10 Mbit/s.
  void Start(std::uint32_t frames, double bit_rate = 10e6) {
    interface_.SetQueuedMode(1);
    interface_.SetPacketsPerQueue(frames);
    interface_.SetBitRate(bit_rate);
    interface_.SetFrameSize(1250);
    ASSERT_TRUE(interface_.FilterInclude());
    ASSERT_TRUE(transmitter_.Start());
  }
  bool Send() {
    PDU frame(1250);
    return interface_.Send(frame);
  }
  void Play(int frames) {
    for (int i = 0; i < frames; ++i) {
      ASSERT_TRUE(Send());
    }
    interface_.FlushLastQueue();
    transmitter_.WaitUntilFinished();
  }
  // Microseconds from the first frame to each frame.
  std::vector<std::int64_t> Times() const {
    std::vector<std::int64_t> times;
    const std::vector<SentFrame> sent = driver_.Sent();
    for (const SentFrame& frame : sent) {
      times.push_back(std::chrono::round<microseconds>(frame.time - sent[0].time).count());
    }
    return times;
  }

  FakeDriver driver_;
  FakeWaiter waiter_;
  CZebParametricManager parameters_;
  PcapRtInterface interface_{"rpcap://fake", 1, driver_};
  PacketTransmitterThread transmitter_;
};

TEST_F(PacketTransmitterTest, FramesLeaveOnTheGridOfTheBitRate) {
  const struct {
    std::uint32_t frames;
    bool burst;
    int lateness_us;  // of every wake-up
  } cases[] = {{1, false, 0}, {1, false, 70}, {4, true, 0}, {4, true, 70}, {4, false, 0}};
  for (const auto& [frames, burst, lateness_us] : cases) {
    FakeDriver& driver = driver_;
    const std::size_t before = driver.Sent().size();
    parameters_.SetBurstMode(burst ? 1 : 0);
    waiter_.SetLateness(microseconds(lateness_us));
    Start(frames);
    Play(40);
    std::vector<SentFrame> sent = driver.Sent();
    sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(before));
    ASSERT_EQ(sent.size(), 40U);
    for (std::uint32_t i = 0; i < sent.size(); ++i) {
      const std::uint32_t slot = burst ? i / frames * frames : i;
      const std::int64_t due = slot == 0 ? 0 : std::int64_t{slot} * 1000 + lateness_us;
      EXPECT_EQ(std::chrono::round<microseconds>(sent[i].time - sent[0].time).count(), due) << i;
    }
  }
}

TEST_F(PacketTransmitterTest, AHitchIsCaughtUpWithoutWaiting) {
  driver_.on_sent = [this, number = 0](const SentFrame&) mutable {
    if (number++ == 3) {
      waiter_.Advance(microseconds(2500));
    }
  };
  Start(1);
  Play(9);
  EXPECT_EQ(Times(),
            std::vector<std::int64_t>({0, 1000, 2000, 3000, 5500, 5500, 6000, 7000, 8000}));
}

TEST_F(PacketTransmitterTest, WaitingIsForTheRunThatStartBegan) {
  transmitter_.WaitUntilFinished();  // none yet
  for (int run = 1; run <= 300; ++run) {
    Start(1);
    Play(1);
    ASSERT_EQ(driver_.Sent().size(), static_cast<std::size_t>(run));
    transmitter_.WaitUntilFinished();
  }
}

TEST_F(PacketTransmitterTest, AStopReachesATransmitterWithoutABatch) {
  for (int run = 0; run < 300; ++run) {
    Start(2);
    transmitter_.Stop();
    transmitter_.WaitUntilFinished();
  }
  EXPECT_TRUE(driver_.Sent().empty());
}

TEST_F(PacketTransmitterTest, ALimitCutsALongWaitAndTheBatchInHandLeaves) {
  platform::DeadlineWaiter waiter;
  interface_.SetWaiter(&waiter);
  std::promise<void> first_left;
  driver_.on_sent = [&, first = true](const SentFrame&) mutable {
    if (first) {
      first_left.set_value();
      first = false;
    }
  };
  Start(1, 10);  // a frame in a thousand seconds
  Send();
  first_left.get_future().wait();
  Send();
  transmitter_.Stop();
  waiter.LimitWaits(waiter.Now());
  transmitter_.WaitUntilFinished();
  EXPECT_EQ(driver_.Sent().size(), 2U);
}

TEST_F(PacketTransmitterTest, ARefusedBatchEndsTheRunAndReleasesThePump) {
  driver_.RefuseAfter(5);
  testing::internal::CaptureStdout();
  Start(2);
  auto pump = OnAnotherThread([this] {
    int taken = 0;
    for (; Send(); ++taken) {
    }
    return taken;
  });
  EXPECT_TRUE(Returns(pump));
  transmitter_.WaitUntilFinished();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "An error occurred sending the packets:  Only 1266 bytes were sent\n");
  EXPECT_EQ(driver_.Sent().size(), 5U);
  EXPECT_GE(pump.get(), 5);
}

}  // namespace
}  // namespace ipplayout
