// The whole library on a fake adapter. What a host sees of it is tested on the wire; here threads
// meet at their worst moments, under the thread sanitizer too.
#include "control/playout.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "control/library.h"
#include "tests/support/blocked_call.h"
#include "tests/support/bytes.h"
#include "tests/support/fake_driver.h"
#include "transmit/trace_log.h"

namespace ipplayout {
namespace {

class PlayoutTest : public testing::Test {
 protected:
  PlayoutTest() {
    OsaTraceSilent = true;
    testing::internal::CaptureStdout();
    Settings() = {};
    driver_.adapters->push_back({"rpcap://fake", "an adapter", {}});
    library_ = std::make_unique<Library>(driver_);
    library_->playout.Initialise();
    SetRate(1e4);
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

  static void SetRate(double mbit) { Settings().IPBitRate = mbit; }
  Playout& GetPlayout() { return library_->playout; }
  int Write(std::uint32_t bytes) { return GetPlayout().Write(data_.data(), bytes); }
  std::uint64_t DatagramsSent() {
    PlayoutStatistics statistics;
    library_->pump.GetStatistics(&statistics);
    return statistics.DatagramsSent;
  }

  static constexpr std::uint32_t kPayload = 7 * 188;

  const Bytes data_ = Bytes(262140, 0x47);
  FakeDriver driver_;
  std::unique_ptr<Library> library_;
};

TEST_F(PlayoutTest, ShortPlayoutsLoseNothingInAnyMode) {
  for (int run = 1; run <= 600; ++run) {
    SetRate(run % 3 == 0 ? 50 : 1e5);
    Settings().parametric.BurstMode = run % 3 == 1 ? 1 : 0;
    Settings().parametric.BurstValueType = 1;
    Settings().parametric.BurstSize = 2;
    ASSERT_EQ(GetPlayout().Start(), Playout::kStarted);
    ASSERT_FALSE(library_->pump.IsComplete());
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

// Writers, a pause, two stops and a wait for the end, all at once; some adapters fail on the way.
TEST_F(PlayoutTest, EndsAtTheWorstMoments) {
  std::mt19937 random(6);
  for (int run = 0; run < 250; ++run) {
    SetRate(std::vector{10.0, 500.0, 1e5}[random() % 3]);
    if (run % 4 == 0) {
      driver_.RefuseAfter(random() % 300);
    } else {
      driver_.AcceptAll();
    }
    ASSERT_EQ(GetPlayout().Start(), Playout::kStarted);
    auto writer = OnAnotherThread([this, chunk = 4 + random() % 4000, left = 2000]() mutable {
      while (left-- > 0 && Write(static_cast<std::uint32_t>(chunk)) == 0) {
      }
    });
    auto pause = OnAnotherThread([this, run] {
      library_->pump.Pause(run % 3 == 0);
      library_->errors.GeneratePacketLoss();
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
    library_->pump.Pause(false);  // one that came after the stop
    GetPlayout().Stop();          // discards what was written after it
  }
}

TEST_F(PlayoutTest, AFullRingHoldsAWriterUntilTheRunEnds) {
  SetRate(1e-5);
  for (const bool adapter_fails : {false, true}) {
    if (adapter_fails) {
      driver_.RefuseAfter(0);
      SetRate(10);
    }
    ASSERT_EQ(GetPlayout().Start(), Playout::kStarted);
    if (!adapter_fails) {
      // 64 MiB hold 256 writes and 1,024 bytes, and the pump takes three datagrams at most.
      for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(Write(262140), 0);
      }
    }
    auto writer = OnAnotherThread([this] {
      while (Write(262140) == 0) {
      }
    });
    if (!adapter_fails) {
      EXPECT_TRUE(Blocks(writer));
      EXPECT_EQ(GetPlayout().Start(), Playout::kFailed);  // and the running one goes on
      EXPECT_TRUE(Blocks(writer));
      GetPlayout().Stop();
    }
    EXPECT_TRUE(Returns(writer));
    EXPECT_EQ(Write(262140), adapter_fails ? Playout::kFailed : 0);
    GetPlayout().Stop();
  }
}

TEST_F(PlayoutTest, ALibraryThatIsUnloadedEndsItsPlayout) {
  SetRate(1e-5);
  ASSERT_EQ(GetPlayout().Start(), Playout::kStarted);
  ASSERT_EQ(Write(10 * kPayload), 0);
  auto unload = OnAnotherThread([this] { library_.reset(); });
  EXPECT_TRUE(Returns(unload));
}

}  // namespace
}  // namespace ipplayout
