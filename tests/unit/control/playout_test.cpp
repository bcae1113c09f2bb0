// SPDX-License-Identifier: MIT
// The whole library on a fake adapter. What a host sees of it is tested on the wire; here is what
// no byte shows, and threads meet at their worst moments, under the thread sanitizer too.
#include "control/playout.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "control/library.h"
#include "payload/error_schedule.h"
#include "platform/clock.h"
#include "platform/random.h"
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
  PlayoutStatistics Statistics() {
    PlayoutStatistics statistics;
    library_->parts.pump.GetStatistics(&statistics);
    return statistics;
  }
  std::uint64_t DatagramsSent() { return Statistics().DatagramsSent; }
  // A whole playout, but for its stop.
  void Play(double mbit, std::uint32_t datagrams) {
    Start(mbit);
    ASSERT_EQ(Write(datagrams * kPayload), 0);
    GetPlayout().WriteTerminate();
  }

  static constexpr std::uint32_t kPayload = 7 * 188;

  const Bytes data_ = Bytes(200 * kPayload, 0x47);
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

// Frames of 10,960 bits. Gaps and offsets are cut to whole microseconds.
TEST_F(PlayoutTest, AStartLoadsWhatTimesTheFrames) {
  struct Case {
    double mbit = 50;
    std::uint32_t protocol = 1;
    std::int32_t copies = 0;
    std::uint32_t burst = 0;
    std::uint32_t burst_by = 0;
    std::uint32_t burst_ms = 0;
    std::uint32_t burst_size = 0;
    std::uint32_t jitter = 0;
    float period = 0;
    std::uint32_t pattern = 0;
    std::size_t frames = 0;  // in a batch
    std::vector<int> first;  // their time stamps in the first one
    std::int32_t type = 3;   // of jitter, as the parametric manager knows it
  };
  const Case cases[] = {
      {.frames = 1, .first = {0}},
      {.mbit = 100, .frames = 10, .first = {0, 109, 218, 327}},
      {.copies = 1, .frames = 10, .first = {0, 109, 218, 327}},
      // Square, by 50.75 us up and down.
      {.jitter = 1, .period = 101.5F, .frames = 10, .first = {0, 169, 438, 607, 876}},
      {.mbit = 100, .jitter = 2, .period = 101.5F, .frames = 10, .first = {0, 109, 218, 327}},
      {.jitter = 1, .pattern = 1, .frames = 10, .first = {0, 219, 438}, .type = 1},
      {.jitter = 1, .pattern = 2, .frames = 10, .first = {0, 219, 438}, .type = 0},
      // 219.2 us by the sines of 0.06286, 0.12571 and 0.18857.
      {.jitter = 1,
       .period = 100,
       .pattern = 3,
       .frames = 200,
       .first = {0, 232, 478, 738},
       .type = 2},
      {.jitter = 1, .period = 100, .pattern = 4, .frames = 10, .first = {0, 219, 438}, .type = -1},
      // 43 ms of one stream are 196.2 frames, of 4 bytes more 195.6; 39 ms are 177.9, of 4 bytes
      // less 178.4.
      {.copies = 1, .burst = 1, .burst_ms = 43, .burst_size = 3, .frames = 196, .first = {0, 0, 0}},
      {.burst = 1, .burst_by = 2, .burst_ms = 39, .burst_size = 3, .frames = 177, .first = {0}},
      {.burst = 1, .burst_by = 1, .burst_ms = 10, .burst_size = 3, .frames = 3, .first = {0}},
      {.burst = 1,
       .burst_by = 9,
       .burst_size = 5,
       .jitter = 1,
       .period = 101.5F,
       .frames = 5,
       .first = {0, 0, 101, 101, 202}},
      {.mbit = 100, .burst = 2, .burst_by = 1, .burst_size = 5, .frames = 10, .first = {0, 109}},
      // UDP alone: 10,864 bits.
      {.mbit = 100, .protocol = 0, .frames = 10, .first = {0, 108, 216, 324}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << &c - cases);
    ParametricSettings& parametric = Settings().parametric;
    parametric.BurstMode = c.burst;
    parametric.BurstValueType = c.burst_by;
    parametric.BurstPeriod = c.burst_ms;
    parametric.BurstSize = c.burst_size;
    parametric.JitterEnabled = c.jitter;
    parametric.JitterPeriod = c.period;
    parametric.JitterDistributionType = c.pattern;
    Settings().params.ProtocolMode = c.protocol;
    Settings().params.ReplicationCount = c.copies;
    const std::size_t before = driver_.Stamps().size();
    Play(c.mbit, c.copies == 0 ? 200 : 100);
    std::vector<int> batch = driver_.Stamps().at(before);
    EXPECT_EQ(batch.size(), c.frames);
    batch.resize(c.first.size());
    EXPECT_EQ(batch, c.first);
    EXPECT_EQ(library_->parts.parametric.GetDistributionType(), c.type);
    GetPlayout().Stop();
  }
}

TEST_F(PlayoutTest, ThePumpTakesThePriorityThatIsSet) {
  const std::pair<std::uint32_t, std::int32_t> levels[] = {{7, 1}, {0, -15}, {1, -1}, {2, 0},
                                                           {3, 1}, {4, 2},   {5, 15}, {6, 15}};
  for (const auto& [priority, level] : levels) {
    Settings().other.PlayerThreadPriority = priority;
    Play(1e5, 1);
    GetPlayout().Stop();  // without a thread the priority is given back and stays
    EXPECT_EQ(library_->parts.pump.SetPriority(OsaThreadPriority::Idle()).Level(), level);
    EXPECT_EQ(library_->parts.transmitter.SetPriority(OsaThreadPriority::Idle()).Level(), -1);
  }
}

TEST_F(PlayoutTest, NothingLeavesBeforeTheThresholdOrDuringAPause) {
  for (const bool paused : {false, true}) {
    std::promise<void> first;
    driver_.on_sent = [&first, left = false](const SentFrame&) mutable {
      if (!std::exchange(left, true)) {
        first.set_value();
      }
    };
    auto sent = first.get_future();
    library_->parts.pump.Pause(paused);
    Settings().PlayFileSizeForIP = 5 * kPayload;
    Start(50);
    ASSERT_EQ(Write(4 * kPayload - (paused ? 0 : 4)), 0);
    EXPECT_TRUE(Blocks(sent));
    paused ? library_->parts.pump.Pause(false) : static_cast<void>(Write(4));
    EXPECT_TRUE(Returns(sent));
    GetPlayout().Stop();
  }
}

TEST_F(PlayoutTest, AFailureIsKnownUntilTheNextStart) {
  driver_.RefuseAfter(2);
  Start(50);
  while (Write(4 * kPayload) == 0) {
  }
  GetPlayout().Stop();
  EXPECT_EQ(Write(4), IPPLAYOUT_FAILED);
  EXPECT_EQ(library_->parts.pump.GetErrorCode(), IPPLAYOUT_FAILED);
  // That of the last batch, which is no whole one, is printed and nothing else.
  driver_.RefuseAfter(2);
  testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  Play(100, 3);
  const std::string printed = testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  EXPECT_EQ(printed, "An error occurred sending the packets:  Only 2772 bytes were sent\n");
  EXPECT_EQ(Write(0), 0);
  EXPECT_EQ(DatagramsSent(), 3U);
  // One of 109 us follows upon none and one upon another: a sixteenth, and 15/16 of that.
  EXPECT_NEAR(Statistics().Jitter, 109e-6 / 16 * 15 / 16, 1e-12);
  // Memory that runs out in the pump is a failure.
  driver_.RefuseAfter(100);
  driver_.on_sent = [](const SentFrame&) { throw std::bad_alloc(); };
  Play(100, 3);
  EXPECT_EQ(Write(0), IPPLAYOUT_FAILED);
}

// So the thread that feeds a run is to end before the next one starts.
TEST_F(PlayoutTest, AnEndThatComesBehindTheStopIsThatOfTheNextRun) {
  Start(1e5);
  GetPlayout().Stop();
  GetPlayout().WriteTerminate();
  ASSERT_EQ(Write(2 * kPayload), 0);
  Start(1e5);
  auto over = OnAnotherThread([this] {
    while (!library_->parts.pump.IsComplete()) {
      std::this_thread::yield();
    }
  });
  ASSERT_TRUE(Returns(over));
  GetPlayout().Stop();
  EXPECT_EQ(DatagramsSent(), 2U);
}

// The list would otherwise have some of them, in places that the host cannot rely on.
TEST_F(PlayoutTest, AnInitialisationWithoutMemoryHasNoAdapter) {
  driver_.adapters->push_back({"rpcap://second", "another one", {}});
  for (const auto& [name, found] : {std::pair("second", 0), std::pair("", 2)}) {
    driver_.no_memory_for = name;
    GetPlayout().Initialise();
    EXPECT_EQ(library_->parts.devices.Size(), found);
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

// The places of random errors are the first numbers of a sequence that the pump begins, whatever
// the headers have drawn before. Those are the first ones of a sequence that the start begins.
TEST_F(PlayoutTest, StartAndPumpSeedTheGenerator) {
  constexpr std::uint32_t kDatagrams = 190;
  ErrorInsertion& errors = Settings().error_insertion;
  errors.ErrInsertionEnable = errors.PacketLossEnabled = errors.RandomizeErrors = 1;
  errors.NumPacketLoss = 20;
  errors.PacketLossRange = kDatagrams;
  RTPHeaderSettings& rtp = Settings().params.ProtocolHeadersSettings.RTPHeaderSettings;
  rtp.RandomSSRC = rtp.RandomSequenceNumber = 1;
  const std::uint64_t before = platform::MonotonicMilliseconds();
  Play(1e5, kDatagrams);
  const std::uint64_t after = platform::MonotonicMilliseconds();
  GetPlayout().Stop();
  std::vector<std::uint16_t> numbers;
  for (const SentFrame& frame : driver_.Sent()) {
    numbers.push_back(static_cast<std::uint16_t>(frame.bytes[44] << 8 | frame.bytes[45]));
  }
  ASSERT_EQ(numbers.size(), kDatagrams - errors.NumPacketLoss);
  bool found = false;
  std::set<std::uint32_t> first_draws;
  for (std::uint64_t seed = before; seed <= after && !found; ++seed) {
    platform::ProcessRandom().Seed(seed);
    first_draws.insert(platform::ProcessRandom().Next());
    platform::ProcessRandom().Seed(seed);
    ErrorSchedule schedule;
    schedule.Configure(errors.NumPacketLoss, kDatagrams, true);
    std::vector<std::uint16_t> expected;
    for (std::uint32_t index = 0; index < kDatagrams; ++index) {
      if (!schedule.Hits(index)) {
        expected.push_back(static_cast<std::uint16_t>(index));
      }
    }
    // The first number is random, too.
    const auto shift = static_cast<std::uint16_t>(numbers.front() - expected.front());
    for (std::uint16_t& number : expected) {
      number = static_cast<std::uint16_t>(number + shift);
    }
    found = numbers == expected;
  }
  EXPECT_TRUE(found);
  const Bytes frame = driver_.Sent().front().bytes;
  EXPECT_TRUE(first_draws.contains(frame[52] * 256U + frame[53]));  // of 15 bits: the SSRC
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
    std::atomic<bool> stopped = false;
    run % 4 == 0 ? driver_.RefuseAfter(random() % 300) : driver_.AcceptAll();
    Start(std::vector{10.0, 500.0, 1e5}[random() % 3]);
    auto writer =
        OnAnotherThread([this, &stopped, chunk = 4 + random() % 4000, left = 2000]() mutable {
          while (!stopped && left-- > 0 && Write(static_cast<std::uint32_t>(chunk)) == 0) {
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
    stopped = true;
    ASSERT_TRUE(Returns(second_stop) && Returns(pause) && Returns(end) && Returns(writer)) << run;
    library_->parts.pump.Pause(false);  // one that came after the stop
    GetPlayout().Stop();                // discards what was written after it
  }
}

}  // namespace
}  // namespace ipplayout
