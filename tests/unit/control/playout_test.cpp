// SPDX-License-Identifier: MIT
// The whole library on a fake adapter. What a host sees of it is tested on the wire; here threads
// meet at their worst moments, under the thread sanitizer too.
#include "control/playout.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "control/library.h"
#include "tests/support/blocked_call.h"
#include "tests/support/fake_driver.h"
#include "transmit/trace_log.h"

namespace ipplayout {
namespace {

using Bytes = std::vector<std::uint8_t>;

class PlayoutTest : public testing::Test {
 protected:
  PlayoutTest() {
    OsaTraceSilent = true;
    testing::internal::CaptureStdout();
    Settings() = {};
    driver_.adapters->push_back({"rpcap://fake", "an adapter", {}});
    library_ = std::make_unique<Library>(driver_);
    GetPlayout().Initialise();
    Settings().TSPacketSize = 188;
    Settings().params.PacketSizeMode = 1;
    Settings().params.TSPacketCount = 7;
    Settings().params.ProtocolMode = 1;
    Settings().other.PlayerThreadPriority = 7;
  }
  ~PlayoutTest() override {
    library_.reset();
    EXPECT_EQ(driver_.OpenHandles(), 0);
    testing::internal::GetCapturedStdout();
    OsaTraceSilent = false;
  }

  Playout& GetPlayout() { return library_->playout; }
  void Start(double mbit) {
    Settings().IPBitRate = mbit;
    ASSERT_EQ(GetPlayout().Start(), Playout::kStarted);
  }
  int Write(std::uint32_t bytes) { return GetPlayout().Write(data_.data(), bytes); }
  std::uint64_t DatagramsSent() {
    PlayoutStatistics statistics;
    library_->parts.pump.GetStatistics(&statistics);
    return statistics.DatagramsSent;
  }

  static constexpr std::uint32_t kPayload = 7 * 188;

  const Bytes data_ = Bytes(262140, 0x47);
  FakeDriver driver_;
  std::unique_ptr<Library> library_;
};

TEST_F(PlayoutTest, ShortPlayoutsLoseNothingInAnyMode) {
  for (int run = 1; run <= 600; ++run) {
    Settings().parametric.BurstMode = run % 3 == 1 ? 1 : 0;
    Settings().parametric.BurstValueType = 1;
    Settings().parametric.BurstSize = 2;
    Start(run % 3 == 0 ? 50 : 1e5);
    ASSERT_FALSE(library_->parts.pump.IsComplete());
    ASSERT_EQ(DatagramsSent(), 0U);
    ASSERT_EQ(Write(3 * kPayload), 0);
    GetPlayout().WriteTerminate();
    ASSERT_EQ(DatagramsSent(), 3U);
    ASSERT_EQ(driver_.Sent().size(), 3U * static_cast<std::size_t>(run));
    if (run % 2 == 0) {
      GetPlayout().Stop();
    }
  }
}

TEST_F(PlayoutTest, AStopDoesNotWaitForCopiesWithoutEnd) {
  driver_.keep_sent = false;
  Settings().params.ReplicationCount = INT32_MAX;
  Start(1e5);
  ASSERT_EQ(Write(2 * kPayload), 0);
  auto stop = OnAnotherThread([this] { GetPlayout().Stop(); });
  ASSERT_TRUE(Returns(stop));
}

// Of a worker by the beginning of its name.
int SchedulingClass(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string found;
    std::getline(std::ifstream(task.path() / "comm"), found);
    if (found.starts_with(name)) {
      return ::sched_getscheduler(std::stoi(task.path().filename()));
    }
  }
  return -1;
}

// Else one of them would go before the other whatever their levels.
TEST_F(PlayoutTest, TheWorkersShareASchedulingClass) {
  for (const double mbit : {1.0, 100.0, 500.0, 2000.0, 1e5}) {
    Start(mbit);
    EXPECT_EQ(SchedulingClass("DataPump"), SchedulingClass("PacketTrans")) << mbit;
    EXPECT_GE(SchedulingClass("DataPump"), 0) << mbit;
    GetPlayout().Stop();
  }
}

// What cannot leave any more is counted, and the next run starts without a trace of it.
TEST_F(PlayoutTest, AStopDoesNotWaitForASlowAdapter) {
  for (const int copies : {0, 5000}) {
    Settings().params.ReplicationCount = copies;
    driver_.on_sent = [](const SentFrame&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    };
    const std::uint64_t before = driver_.SentFrames();
    Start(1e4);
    ASSERT_EQ(Write(190 * kPayload), 0);
    while (driver_.SentFrames() < before + 25) {  // late enough for the pump to be far ahead
      std::this_thread::yield();
    }
    GetPlayout().Stop();
    const std::uint64_t sent = driver_.SentFrames() - before;
    EXPECT_GT(GetPlayout().FramesNotSent(), 0U);
    EXPECT_EQ(sent + GetPlayout().FramesNotSent(),
              DatagramsSent() * (static_cast<std::uint64_t>(copies) + 1));
    ASSERT_EQ(Write(kPayload), 0);
    driver_.on_sent = nullptr;
    Settings().params.ReplicationCount = 0;
    Start(1e4);
    GetPlayout().WriteTerminate();
    EXPECT_EQ(GetPlayout().FramesNotSent(), 0U);
    GetPlayout().Stop();
  }
}

// Writers, a pause, two stops and a wait for the end, all at once; some adapters fail on the way.
TEST_F(PlayoutTest, EndsAtTheWorstMoments) {
  std::mt19937 random(6);
  for (int run = 0; run < 250; ++run) {
    run % 4 == 0 ? driver_.RefuseAfter(random() % 300) : driver_.AcceptAll();
    Start(std::vector{10.0, 500.0, 1e5}[random() % 3]);
    auto writer = OnAnotherThread([this, chunk = 4 + random() % 4000, left = 2000]() mutable {
      while (left-- > 0 && Write(static_cast<std::uint32_t>(chunk)) == 0) {
      }
    });
    auto pause = OnAnotherThread([this, run] {
      library_->parts.pump.Pause(run % 3 == 0);
      library_->parts.errors.GeneratePacketLoss();
    });
    auto end = OnAnotherThread([this, run] {
      if (run % 2 == 0) {
        GetPlayout().WriteTerminate();
      }
    });
    for (auto turns = random() % 50; turns > 0; --turns) {
      std::this_thread::yield();
      DatagramsSent();
    }
    auto second_stop = OnAnotherThread([this] { GetPlayout().Stop(); });
    GetPlayout().Stop();
    ASSERT_TRUE(Returns(second_stop) && Returns(pause) && Returns(end) && Returns(writer)) << run;
    library_->parts.pump.Pause(false);  // one that came after the stop
    GetPlayout().Stop();                // discards what was written after it
  }
}

}  // namespace
}  // namespace ipplayout
