// SPDX-License-Identifier: MIT
// The test stands for the pump.
#include "transmit/packet_transmitter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/random.h"
#include "protocol/pdu.h"
#include "tests/support/fake_driver.h"
#include "tests/support/fake_waiter.h"
#include "transmit/pcap_rt_interface.h"
#include "transmit/trace_log.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;

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

  // Plays frames of 1,250 bytes, 1 ms each at 10 Mbit/s. Microseconds from the first one to each.
  std::vector<std::int64_t> Play(std::uint32_t frames_per_batch, int frames) {
    const std::size_t first = driver_.Sent().size();
    left_ = 0;
    driver_.on_sent = [this](const SentFrame&) {
      if (left_++ == hitch_at) {
        waiter_.Advance(hitch);
      }
    };
    Prepare(frames_per_batch);
    EXPECT_TRUE(transmitter_.Start());
    for (int i = 1; i <= frames; ++i) {
      PDU frame(1250);
      EXPECT_TRUE(interface_.Send(frame));
      while (i % static_cast<int>(frames_per_batch) == 0 && left_ < i) {
        std::this_thread::yield();  // which batch a correction is in time for is no matter of luck
      }
    }
    interface_.FlushLastQueue();
    transmitter_.WaitUntilFinished();
    return TimesFrom(first);
  }

  // The same where the pump is so fast that it stands at the limit of what it may hand over
  // whenever a batch begins to leave: the transmitter's thread does its work as well.
  std::vector<std::int64_t> PlayAhead(int frames_per_batch, int batches) {
    const std::size_t first = driver_.Sent().size();
    left_ = 0;
    int built = 0;
    const auto build = [&] {
      for (int i = 0; i < frames_per_batch; ++i, ++built) {
        PDU frame(1250);
        EXPECT_TRUE(interface_.Send(frame));
      }
    };
    // cppcheck-suppress danglingLifetime ; taken away again below
    driver_.on_sent = [&](const SentFrame&) {
      while (left_ % frames_per_batch == 0 && built < batches * frames_per_batch &&
             interface_.HasRoom()) {
        build();
      }
      if (left_++ == hitch_at) {
        waiter_.Advance(hitch);
      }
      if (left_ == batches * frames_per_batch) {
        transmitter_.Stop();
      }
    };
    Prepare(static_cast<std::uint32_t>(frames_per_batch));
    build();
    EXPECT_TRUE(transmitter_.Start());
    transmitter_.WaitUntilFinished();
    driver_.on_sent = nullptr;
    return TimesFrom(first);
  }
  void Prepare(std::uint32_t frames_per_batch) {
    interface_.SetQueuedMode(1);
    interface_.SetPacketsPerQueue(frames_per_batch);
    interface_.SetBitRate(10e6);
    interface_.SetFrameSize(1250);
    EXPECT_TRUE(interface_.FilterInclude());
  }
  std::vector<std::int64_t> TimesFrom(std::size_t first) const {
    const std::vector<SentFrame> sent = driver_.Sent();
    std::vector<std::int64_t> times;
    for (std::size_t i = first; i < sent.size(); ++i) {
      times.push_back(std::chrono::round<microseconds>(sent[i].time - sent[first].time).count());
    }
    return times;
  }

  FakeDriver driver_;
  FakeWaiter waiter_;
  CZebParametricManager parameters_;
  PcapRtInterface interface_{"rpcap://fake", 1, driver_};
  PacketTransmitterThread transmitter_;
  int hitch_at = -1;  // the frame behind which the transmitter is held up
  microseconds hitch{0};

 private:
  std::atomic<int> left_ = 0;
};

TEST_F(PacketTransmitterTest, FramesLeaveOnTheGridOfTheBitRate) {
  const struct {
    std::uint32_t frames;
    bool burst;
    int lateness_us;  // of every wake-up
  } cases[] = {{1, false, 0}, {1, false, 70}, {4, true, 0}, {4, true, 70}, {4, false, 0}};
  for (const auto& [frames, burst, lateness_us] : cases) {
    waiter_.Advance(std::chrono::seconds(400'000'000));  // up to 63 years after the clock's origin
    parameters_.SetBurstMode(burst ? 1 : 0);
    waiter_.SetLateness(microseconds(lateness_us));
    std::vector<std::int64_t> due;
    for (std::uint32_t i = 0; i < 40; ++i) {
      const std::uint32_t slot = burst ? i / frames * frames : i;
      due.push_back(slot == 0 ? 0 : std::int64_t{slot} * 1000 + lateness_us);
    }
    EXPECT_EQ(Play(frames, 40), due) << frames << ", " << lateness_us;
  }
}

TEST_F(PacketTransmitterTest, AStopReachesATransmitterWithoutABatch) {
  transmitter_.WaitUntilFinished();  // of no run yet
  interface_.SetQueuedMode(1);
  for (int run = 0; run < 300; ++run) {
    ASSERT_TRUE(interface_.FilterInclude() && transmitter_.Start());
    transmitter_.Stop();
    transmitter_.WaitUntilFinished();
  }
}

// The adapter takes 5 frames a second of some 400 that were handed over, and a stop gives up after
// a second. The pump, which waits for room or has one frame left to flush, is let go.
TEST_F(PacketTransmitterTest, AStopGivesUpWhatASlowAdapterCannotTake) {
  testing::internal::CaptureStdout();
  for (const std::uint64_t frames : {400U, 405U, 900U}) {
    std::uint64_t sent = 0;
    driver_.on_sent = [&](const SentFrame&) {
      waiter_.Advance(std::chrono::milliseconds(200));
      if (++sent == 30) {
        waiter_.GiveUpAt(waiter_.Peek() + std::chrono::seconds(1));
      }
    };
    Prepare(10);
    ASSERT_TRUE(transmitter_.Start());
    for (std::uint64_t i = 0; i < frames; ++i) {
      PDU frame(1250);
      ASSERT_TRUE(interface_.Send(frame));
    }
    interface_.FlushLastQueue();
    transmitter_.WaitUntilFinished();
    EXPECT_EQ(sent, 35U);
    EXPECT_EQ(interface_.FramesNotSent(), frames - sent);
    waiter_.GiveUpAt(std::chrono::nanoseconds::max());
  }
  testing::internal::GetCapturedStdout();
}

TEST_F(PacketTransmitterTest, AHitchIsCaughtUpWithoutWaiting) {
  hitch_at = 3;
  hitch = microseconds(2500);
  EXPECT_EQ(Play(1, 9),
            std::vector<std::int64_t>({0, 1000, 2000, 3000, 5500, 5500, 6000, 7000, 8000}));
  parameters_.SetBurstMode(1);
  hitch = microseconds(9500);
  EXPECT_EQ(Play(2, 18),
            std::vector<std::int64_t>({0, 0, 2000, 2000, 11500, 11500, 11500, 11500, 11500, 11500,
                                       11500, 11500, 12000, 12000, 14000, 14000, 16000, 16000}));
}

// Spaced batches make up for what is missing with shorter gaps and are on the grid again for good.
// Gaps are cut to whole microseconds.
TEST_F(PacketTransmitterTest, ALateBatchIsCaughtUpByShorterGaps) {
  hitch_at = 29;
  hitch = microseconds(7000);
  const std::vector<std::int64_t> times = Play(10, 5000);
  for (std::size_t i = 0; i < times.size(); i += 10) {  // where batches begin
    const std::int64_t deviation = times[i] - static_cast<std::int64_t>(i) * 1000;
    const bool catching_up = i >= 30 && i < 100;
    ASSERT_GE(deviation, catching_up ? -1020 : -20) << i;  // never more than a gap ahead
    ASSERT_LE(deviation, catching_up ? 6020 : 20) << i;
  }
}

// A pump that hands over as far ahead as it may, for the length of each batch. Frames that leave
// together show that the pump had given their batch no gap.
TEST_F(PacketTransmitterTest, APumpThatRunsAheadClumpsNoMoreThanTheLagPaysFor) {
  constexpr int kFrames = 10;
  const struct {
    std::int32_t pattern;
    float amount;  // percent
    int hitch_us;
    int most_clumped;  // of 2,000 batches
  } cases[] = {
      {CZebParametricManager::kNone, 0, 19'000, 4},
      {CZebParametricManager::kNone, 0, 20'000, 4},
      {CZebParametricManager::kNone, 0, 25'000, 4},
      {CZebParametricManager::kNone, 0, 40'000, 6},
      {CZebParametricManager::kSquaredDifference, 200, 0, 20},
      {CZebParametricManager::kSquaredDifference, 300, 0, 150},
  };
  for (const auto& [pattern, amount, hitch_us, most_clumped] : cases) {
    parameters_.SetJitterEnabled(pattern == CZebParametricManager::kNone ? 0 : 1);
    parameters_.SetDistributionType(pattern);
    parameters_.SetJitterPeriod(amount);
    platform::ProcessRandom().Seed(5);
    hitch_at = hitch_us > 0 ? 105 : -1;
    hitch = microseconds(hitch_us);
    const std::vector<std::int64_t> times = PlayAhead(kFrames, 2000);
    int clumped = 0;
    for (std::size_t i = 0; i + kFrames <= times.size(); i += kFrames) {
      clumped += times[i] == times[i + kFrames - 1] ? 1 : 0;
    }
    EXPECT_LE(clumped, most_clumped) << amount << ", " << hitch_us;
  }
}

}  // namespace
}  // namespace ipplayout
