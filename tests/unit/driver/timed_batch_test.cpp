#include "driver/timed_batch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/fake_waiter.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::ElementsAre;

struct Stamp {
  std::uint32_t seconds;
  std::uint32_t microseconds;
};

// Frame i holds its number twice, in i % 3 + 2 bytes, so that no two neighbours are equally long.
std::unique_ptr<SendQueue> QueueOf(const std::vector<Stamp>& stamps) {
  auto queue = SendQueue::Allocate(stamps.size() * 32 + 1);
  for (std::size_t i = 0; i < stamps.size(); ++i) {
    const auto number = static_cast<std::uint8_t>(i);
    const std::uint8_t bytes[4] = {number, number, 0, 0};
    const auto length = static_cast<std::uint32_t>(i % 3 + 2);
    queue->Append({stamps[i].seconds, stamps[i].microseconds, length, length}, bytes);
  }
  return queue;
}

std::vector<Stamp> EqualStamps(std::size_t count) {
  return std::vector<Stamp>(count, Stamp{0, 0});
}

// Notes which frames leave when; each burst may take time, and frames may be refused.
class Recorder final : public BurstSender {
 public:
  explicit Recorder(FakeWaiter& waiter) : waiter_(waiter), start_(waiter.Peek()) {}

  std::size_t SendBurst(std::span<const FrameBytes> frames) override {
    bursts.push_back(frames.size());
    std::size_t sent = 0;
    for (; sent < frames.size() && numbers.size() < accept; ++sent) {
      numbers.push_back(frames[sent][0]);
      times.push_back(std::chrono::duration_cast<microseconds>(waiter_.Peek() - start_).count());
    }
    waiter_.Advance(burst_duration);
    return sent;
  }

  std::size_t accept = std::numeric_limits<std::size_t>::max();
  nanoseconds burst_duration{0};
  std::vector<std::size_t> bursts;
  std::vector<int> numbers;
  std::vector<std::int64_t> times;  // microseconds since the start

 private:
  FakeWaiter& waiter_;
  const nanoseconds start_;
};

bool InOrder(const std::vector<int>& numbers) {
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    if (numbers[i] != static_cast<int>(i)) {
      return false;
    }
  }
  return true;
}

struct Schedule {
  std::string name;
  std::vector<Stamp> stamps;
  std::vector<std::int64_t> times;  // expected, microseconds after the start
  std::vector<std::size_t> bursts;
};

void PrintTo(const Schedule& schedule, std::ostream* out) {
  *out << schedule.name;
}

class TimedBatchSchedule : public testing::TestWithParam<Schedule> {};

TEST_P(TimedBatchSchedule, FramesLeaveByTheirStamps) {
  const auto queue = QueueOf(GetParam().stamps);
  FakeWaiter waiter;
  Recorder sender(waiter);
  EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), queue->Used());
  EXPECT_TRUE(InOrder(sender.numbers));
  EXPECT_EQ(sender.times, GetParam().times);
  EXPECT_EQ(sender.bursts, GetParam().bursts);
  EXPECT_LE(waiter.Readings(), static_cast<int>(sender.bursts.size()));
}

constexpr std::uint32_t kLast = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t kLastSecond = std::int64_t{kLast} * 1'000'000;

INSTANTIATE_TEST_SUITE_P(
    , TimedBatchSchedule,
    testing::Values(
        Schedule{"Spaced", {{0, 0}, {0, 100}, {0, 250}}, {0, 100, 250}, {1, 1, 1}},
        Schedule{"RelativeToFirst", {{7, 500}, {7, 600}, {8, 500}}, {0, 100, 1'000'000}, {1, 1, 1}},
        Schedule{"CarryIntoSeconds", {{0, 999'999}, {1, 1}, {3, 0}}, {0, 2, 2'000'001}, {1, 1, 1}},
        Schedule{"EqualLeaveTogether", {{0, 0}, {0, 0}, {0, 40}, {0, 40}}, {0, 0, 40, 40}, {2, 2}},
        Schedule{
            "BackInTime", {{0, 0}, {0, 300}, {0, 100}, {0, 400}}, {0, 300, 300, 400}, {1, 2, 1}},
        Schedule{"BehindTheFirst", {{5, 0}, {4, 999'999}, {0, 0}, {5, 10}}, {0, 0, 0, 10}, {3, 1}},
        Schedule{"LargestDifference", {{0, 0}, {kLast, 0}}, {0, kLastSecond}, {1, 1}},
        Schedule{
            "LargestDifferenceBack", {{kLast, kLast}, {0, 0}, {kLast, kLast}}, {0, 0, 0}, {3}}),
    [](const auto& schedule) { return schedule.param.name; });

TEST(TimedBatch, BurstReadsTheClockOnceAndIsCutAtTheMostFrames) {
  const auto queue = QueueOf(EqualStamps(130));
  FakeWaiter waiter;
  Recorder sender(waiter);
  EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), queue->Used());
  EXPECT_THAT(sender.bursts, ElementsAre(64, 64, 2));
  EXPECT_TRUE(InOrder(sender.numbers));
  EXPECT_EQ(waiter.Readings(), 1);
  EXPECT_EQ(waiter.Waits(), 0);
}

TEST(TimedBatch, UnsynchronisedNeverLooksAtTheClock) {
  const auto queue = QueueOf({{0, 0}, {1000, 0}, {0, 0}});
  FakeWaiter waiter;
  Recorder sender(waiter);
  EXPECT_EQ(TransmitTimed(*queue, false, waiter, sender), queue->Used());
  EXPECT_THAT(sender.bursts, ElementsAre(3));
  EXPECT_EQ(waiter.Readings() + waiter.Waits(), 0);
}

TEST(TimedBatch, LateFramesLeaveTogetherAndTheGridStays) {
  const auto queue = QueueOf({{0, 0}, {0, 100}, {0, 200}, {0, 300}, {0, 400}, {0, 800}});
  FakeWaiter waiter;
  Recorder sender(waiter);
  sender.burst_duration = microseconds(350);
  EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), queue->Used());
  EXPECT_THAT(sender.bursts, ElementsAre(1, 3, 1, 1));
  EXPECT_THAT(sender.times, ElementsAre(0, 350, 350, 350, 700, 1050));
}

TEST(TimedBatch, LateWakeUpDoesNotMoveLaterFrames) {
  const auto queue = QueueOf({{0, 0}, {0, 100}, {0, 200}});
  FakeWaiter waiter;
  waiter.SetLateness(microseconds(30));
  Recorder sender(waiter);
  EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), queue->Used());
  EXPECT_THAT(sender.times, ElementsAre(0, 130, 230));
}

// A stop limits every wait: what is left of the batch goes out at once.
TEST(TimedBatch, WaitsThatAreCutShortLetTheRestGo) {
  class StoppedWaiter final : public FakeWaiter {
    void WaitUntil(nanoseconds /*deadline*/) override {}
  } waiter;
  const auto queue = QueueOf({{0, 0}, {1000, 0}, {2000, 0}, {3000, 0}});
  Recorder sender(waiter);
  EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), queue->Used());
  EXPECT_THAT(sender.times, ElementsAre(0, 0, 0, 0));
  EXPECT_TRUE(InOrder(sender.numbers));
}

TEST(TimedBatch, RefusalEndsTheBatchWithTheBytesSent) {
  constexpr std::size_t kSize[] = {16 + 2, 16 + 3, 16 + 4};  // of the frames of QueueOf
  struct {
    std::size_t accepted;
    std::size_t bytes;
  } const cases[] = {
      {0, 0},
      {1, kSize[0]},
      {2, kSize[0] + kSize[1]},
      {3, kSize[0] + kSize[1] + kSize[2]},
      {4, kSize[0] + kSize[1] + kSize[2] + kSize[0]},
  };
  for (const auto& row : cases) {
    const auto queue = QueueOf({{0, 0}, {0, 0}, {0, 0}, {0, 50}, {0, 100}});
    FakeWaiter waiter;
    Recorder sender(waiter);
    sender.accept = row.accepted;
    EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), row.bytes) << row.accepted;
    EXPECT_EQ(sender.numbers.size(), row.accepted);
    EXPECT_EQ(sender.bursts.size(), std::max<std::size_t>(row.accepted, 2) - 1) << row.accepted;
  }
}

TEST(TimedBatch, EmptyQueueSendsNothing) {
  const auto queue = SendQueue::Allocate(100);
  FakeWaiter waiter;
  Recorder sender(waiter);
  EXPECT_EQ(TransmitTimed(*queue, true, waiter, sender), 0u);
  EXPECT_TRUE(sender.bursts.empty());
  EXPECT_EQ(waiter.Readings(), 0);
}

}  // namespace
}  // namespace ipplayout
