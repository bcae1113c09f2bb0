// SPDX-License-Identifier: MIT
#include "driver/timed_batch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <vector>

#include "tests/support/fake_waiter.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using testing::ElementsAre;

struct Stamp {
  std::uint32_t seconds;
  std::uint32_t microseconds;
};

// Frame i holds its number, in i % 3 + 2 bytes, so that no two neighbours are equally long.
std::unique_ptr<SendQueue> QueueOf(const std::vector<Stamp>& stamps) {
  auto queue = SendQueue::Allocate(stamps.size() * 32 + 1);
  for (std::size_t i = 0; i < stamps.size(); ++i) {
    const std::uint8_t bytes[4] = {static_cast<std::uint8_t>(i)};
    const auto length = static_cast<std::uint32_t>(i % 3 + 2);
    queue->Append({stamps[i].seconds, stamps[i].microseconds, length, length}, bytes);
  }
  return queue;
}

// Notes which frames leave when, and that they do so in order; each burst may take time, and frames
// may be refused.
class Recorder final : public BurstSender {
 public:
  explicit Recorder(FakeWaiter& waiter) : waiter_(waiter), start_(waiter.Peek()) {}

  std::size_t SendBurst(std::span<const FrameBytes> frames,
                        const platform::DeadlineWaiter& /*waiter*/) override {
    bursts.push_back(frames.size());
    std::size_t sent = 0;
    for (; sent < frames.size() && times.size() < accept; ++sent) {
      EXPECT_EQ(frames[sent][0], times.size());
      times.push_back((waiter_.Peek() - start_) / microseconds(1));
    }
    waiter_.Advance(burst_duration);
    return sent;
  }

  std::size_t accept = std::numeric_limits<std::size_t>::max();
  microseconds burst_duration{0};
  std::vector<std::size_t> bursts;
  std::vector<std::int64_t> times;  // microseconds since the start

 private:
  FakeWaiter& waiter_;
  const std::chrono::nanoseconds start_;
};

TEST(TimedBatch, FramesLeaveByTheirStampsAndThoseThatAreDueTogether) {
  constexpr std::uint32_t kLast = std::numeric_limits<std::uint32_t>::max();
  const struct {
    const char* what;
    std::vector<Stamp> stamps;
    std::vector<std::int64_t> times;  // microseconds after the start
    std::vector<std::size_t> bursts;
    int burst_us = 0;     // that sending takes
    int lateness_us = 0;  // of every wake-up
  } cases[] = {
      {"spaced", {{0, 0}, {0, 100}, {0, 250}}, {0, 100, 250}, {1, 1, 1}},
      {"relative to the first", {{7, 500}, {7, 600}, {8, 500}}, {0, 100, 1000000}, {1, 1, 1}},
      {"carry into seconds", {{0, 999999}, {1, 1}, {3, 0}}, {0, 2, 2000001}, {1, 1, 1}},
      {"equal", {{0, 0}, {0, 0}, {0, 40}, {0, 40}}, {0, 0, 40, 40}, {2, 2}},
      {"back in time", {{0, 0}, {0, 300}, {0, 100}, {0, 400}}, {0, 300, 300, 400}, {1, 2, 1}},
      {"behind the first", {{5, 0}, {4, 999999}, {0, 0}, {5, 10}}, {0, 0, 0, 10}, {3, 1}},
      {"largest difference", {{0, 0}, {kLast, 0}}, {0, kLast * std::int64_t{1000000}}, {1, 1}},
      {"largest one back", {{kLast, kLast}, {0, 0}, {kLast, kLast}}, {0, 0, 0}, {3}},
      {"late frames together, the grid stays",
       {{0, 0}, {0, 100}, {0, 200}, {0, 300}, {0, 400}, {0, 800}},
       {0, 350, 350, 350, 700, 1050},
       {1, 3, 1, 1},
       350},
      {"late wake-ups add nothing up",
       {{0, 0}, {0, 100}, {0, 200}},
       {0, 130, 230},
       {1, 1, 1},
       0,
       30},
      {"nothing", {}, {}, {}},
  };
  for (const auto& c : cases) {
    const auto queue = QueueOf(c.stamps);
    FakeWaiter waiter;
    waiter.SetLateness(microseconds(c.lateness_us));
    Recorder sender(waiter);
    sender.burst_duration = microseconds(c.burst_us);
    EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), queue->Used()) << c.what;
    EXPECT_EQ(sender.times, c.times) << c.what;
    EXPECT_EQ(sender.bursts, c.bursts) << c.what;
    EXPECT_LE(waiter.Readings(), static_cast<int>(c.bursts.size())) << c.what;
  }
}

TEST(TimedBatch, BurstsAreCutAtTheMostFramesAndReadTheClockOnceAtMost) {
  for (const bool synchronised : {true, false}) {
    const auto queue = QueueOf(std::vector<Stamp>(130, Stamp{synchronised ? 0U : 7U, 0}));
    FakeWaiter waiter;
    Recorder sender(waiter);
    EXPECT_EQ(TransmitTimed(*queue, synchronised, waiter, sender), queue->Used());
    EXPECT_THAT(sender.bursts, ElementsAre(64, 64, 2));
    EXPECT_EQ(waiter.Readings(), synchronised ? 1 : 0);
    EXPECT_EQ(waiter.Waits(), 0);
  }
}

TEST(TimedBatch, RefusalEndsTheBatchWithTheBytesSent) {
  const std::size_t bytes[] = {0, 18, 18 + 19, 18 + 19 + 20, 18 + 19 + 20 + 18};  // 16 of header
  for (std::size_t accepted = 0; accepted < std::size(bytes); ++accepted) {
    const auto queue = QueueOf({{0, 0}, {0, 0}, {0, 0}, {0, 50}, {0, 100}});
    FakeWaiter waiter;
    Recorder sender(waiter);
    sender.accept = accepted;
    EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), bytes[accepted]) << accepted;
    EXPECT_EQ(sender.bursts.size(), std::max<std::size_t>(accepted, 2) - 1) << accepted;
  }
}

TEST(TimedBatch, NoBurstBeginsOnceTheWaiterGivesUp) {
  const auto queue = QueueOf(std::vector<Stamp>(300));
  FakeWaiter waiter;
  Recorder sender(waiter);
  sender.burst_duration = microseconds(1000);
  waiter.GiveUpAt(waiter.Peek() + microseconds(1500));
  EXPECT_LT(TransmitTimed(*queue, true, waiter, sender), queue->Used());
  EXPECT_THAT(sender.bursts, ElementsAre(64, 64));
}

}  // namespace
}  // namespace ipplayout
