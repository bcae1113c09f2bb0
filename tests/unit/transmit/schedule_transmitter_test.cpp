// SPDX-License-Identifier: MIT
// The transmitter of a schedule in real time, which a test moves by hand.
#include "transmit/schedule_transmitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "platform/virtual_waiter.h"
#include "tests/support/blocked_call.h"
#include "tests/support/fake_frame_sink.h"
#include "tests/support/schedule_player.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::ElementsAre;

// A clock that stands still until a test moves it.
class SteppedWaiter final : public platform::DeadlineWaiter {
 public:
  nanoseconds Now() const override { return now_.load(); }
  void WaitUntilInterrupted(nanoseconds deadline, nanoseconds longest_spin) override {
    if (passes_ > 0) {
      // The first wait may have been thought of before it was asked for.
      if (--passes_ == 0) {
        spin_.set_value(longest_spin);
      }
    } else if (Now() < deadline) {
      DeadlineWaiter::WaitUntilInterrupted(kNever, nanoseconds::zero());
    }
  }
  void MoveTo(nanoseconds time) {
    now_ = time;
    Interrupt();
  }
  // How much of the wait for its next frame the thread spins through. Once.
  nanoseconds Spin() {
    auto spin = spin_.get_future();
    passes_ = 2;
    Interrupt();
    return Returns(spin) ? spin.get() : nanoseconds(-1);
  }

 private:
  std::atomic<nanoseconds> now_{nanoseconds(0)};
  std::atomic<int> passes_{0};
  std::promise<nanoseconds> spin_;
};

class SteppedTime : public testing::Test {
 protected:
  SteppedTime() { transmitter.Start(); }

  void Play(Player& player, std::optional<nanoseconds> start) {
    ScheduledStream* const stream = &player.stream;
    ASSERT_TRUE(transmitter.Add({&stream, 1}, start));
  }
  // Returns when what was asked for and what was due before is done: a stream came and went.
  void Settle() {
    Player passing('p', sink);
    Play(passing.ThatIsAll(), {});
    EXPECT_EQ(passing.Ended(), 0);
    transmitter.Remove(passing.stream);
  }
  void MoveTo(nanoseconds time) {
    clock->MoveTo(time);
    Settle();
  }
  void Pause(Player& player, bool on) {
    player.stream.wants_pause = on;
    transmitter.Request(player.stream);
    Settle();
  }
  std::vector<nanoseconds> Times() const {
    std::vector<nanoseconds> times;
    for (const auto& frame : sink.Sent()) {
      times.push_back(frame.time);
    }
    return times;
  }

  FakeFrameSink sink;
  SteppedWaiter* clock = new SteppedWaiter;  // the transmitter's
  ScheduleTransmitter transmitter{std::unique_ptr<platform::DeadlineWaiter>(clock), false};
};

TEST_F(SteppedTime, APauseMovesTheSchedule) {
  Player a('a', sink);
  Play(a.Holding({milliseconds(0), milliseconds(10), milliseconds(20)}).ThatIsAll(), seconds(1));
  MoveTo(seconds(1));
  MoveTo(seconds(1) + milliseconds(4));
  Pause(a, true);
  MoveTo(seconds(1) + milliseconds(504));
  EXPECT_EQ(sink.SentFrames(), 1U);
  Pause(a, false);
  EXPECT_EQ(sink.SentFrames(), 1U);  // 6 ms are left to the next one
  EXPECT_EQ(a.Counts().shift, milliseconds(500));
  MoveTo(seconds(1) + milliseconds(510));
  MoveTo(seconds(1) + milliseconds(520));
  EXPECT_EQ(a.Ended(), 0);
  EXPECT_THAT(Times(), ElementsAre(seconds(1), seconds(1) + milliseconds(510),
                                   seconds(1) + milliseconds(520)));
  EXPECT_EQ(a.Counts().on_time, 3U);
  EXPECT_EQ(a.Counts().longest_gap, milliseconds(510));
  EXPECT_EQ(a.Counts().dry_times, 0U);
  transmitter.Remove(a.stream);
}

TEST_F(SteppedTime, APauseThatIsOverBeforeTheStartMovesNothing) {
  Player a('a', sink);
  Play(a.Holding({milliseconds(0)}).ThatIsAll(), seconds(1));
  Pause(a, true);
  MoveTo(milliseconds(900));
  Pause(a, false);
  MoveTo(seconds(1));
  EXPECT_EQ(a.Ended(), 0);
  EXPECT_EQ(a.Counts().shift, nanoseconds(0));
  EXPECT_THAT(Times(), ElementsAre(seconds(1)));
  transmitter.Remove(a.stream);
}

TEST_F(SteppedTime, DataThatComesLateIsDryAndLate) {
  Player a('a', sink);
  Play(a.Holding({milliseconds(0)}), seconds(1));
  MoveTo(seconds(1));
  MoveTo(seconds(3));
  EXPECT_EQ(a.Counts().dry_times, 0U);
  a.Holding({milliseconds(10), milliseconds(20)});
  transmitter.Request(a.ThatIsAll().stream);
  Settle();
  MoveTo(seconds(3) + milliseconds(8));  // sooner than planned at first, and yet late
  EXPECT_EQ(a.Ended(), 0);
  EXPECT_EQ(a.Counts().dry_times, 1U);
  EXPECT_EQ(a.Counts().dry, milliseconds(1990));
  EXPECT_EQ(a.Counts().late, 2U);
  EXPECT_EQ(a.Counts().on_time, 1U);
  EXPECT_EQ(a.stream.timing.Lateness().Maximum(), milliseconds(1990));
  transmitter.Remove(a.stream);
}

TEST_F(SteppedTime, WhatFollowsLateDataIsLateButNotDry) {
  Player a('a', sink, AtOnce());
  Play(a.Holding({milliseconds(0)}), seconds(1));
  MoveTo(seconds(1));
  MoveTo(seconds(3));
  for (int i = 1; i <= 3; ++i) {  // one at a time, as from a builder that has just been woken
    a.Push(milliseconds(10 * i));
    transmitter.Request(a.stream);
    Settle();
    MoveTo(seconds(3) + microseconds(i));
  }
  EXPECT_EQ(a.Counts().late, 3U);
  EXPECT_EQ(a.Counts().dry_times, 1U);
  EXPECT_EQ(a.Counts().dry, milliseconds(1990));
  transmitter.Remove(a.stream);
}

// Both begin behind the tolerance, here of a millisecond.
TEST_F(SteppedTime, WhatIsAsLateAsIsToleratedIsOnTimeAndNotDry) {
  Player a('a', sink, AtOnce());
  Play(a.Holding({milliseconds(0)}), seconds(1));
  MoveTo(seconds(1));
  int number = 0;
  for (const nanoseconds late : {nanoseconds(1'000'000), nanoseconds(1'000'001)}) {
    const nanoseconds due = milliseconds(10 * ++number);
    MoveTo(seconds(1) + due + late);
    a.Push(due);
    transmitter.Request(a.stream);
    Settle();
  }
  EXPECT_EQ(a.Counts().on_time, 2U);
  EXPECT_EQ(a.Counts().late, 1U);
  EXPECT_EQ(a.Counts().dry_times, 1U);
  EXPECT_EQ(a.Counts().dry, nanoseconds(1'000'001));
  transmitter.Remove(a.stream);
}

TEST_F(SteppedTime, FramesOfABurstLeaveWhileItIsHandedOver) {
  sink.on_send = [this](auto) { clock->MoveTo(clock->Now() + microseconds(40)); };
  Player a('a', sink, AtOnce(), 8);
  for (const bool leaves : {true, false, true}) {
    a.Push(nanoseconds(0), leaves);
  }
  Play(a.ThatIsAll(), seconds(1));
  MoveTo(seconds(1));
  EXPECT_EQ(a.Ended(), 0);
  std::array<IpPlayoutRecord, 8> records;
  ASSERT_EQ(Records(a, records), 3U);
  EXPECT_EQ(records[0].DepartureNs, 1'000'000'000);
  EXPECT_EQ(records[1].DepartureNs, -1);
  EXPECT_EQ(records[2].DepartureNs, 1'000'020'000);
  transmitter.Remove(a.stream);
}

TEST_F(SteppedTime, HalfOfARingThatIsFreeIsReported) {
  Player a('a', sink, AtOnce());
  for (int i = 0; i < 16; ++i) {
    a.Push(milliseconds(i));
  }
  EXPECT_FALSE(a.stream.ring.HasRoom(1));
  Play(a, nanoseconds(0));
  MoveTo(milliseconds(6));
  EXPECT_EQ(a.Rooms(), 0);
  MoveTo(milliseconds(7));
  EXPECT_EQ(a.Rooms(), 1);
  MoveTo(milliseconds(15));
  EXPECT_EQ(a.Rooms(), 1);  // nobody has asked again
  transmitter.Remove(a.stream);
}

TEST_F(SteppedTime, OnlyWhatIsDueLeavesAndOneCallTakesWhatIsDueTogether) {
  Player a('a', sink);
  Player b('b', sink);
  a.Holding({milliseconds(1), milliseconds(2)}).ThatIsAll();
  b.Holding({milliseconds(1) + microseconds(2), milliseconds(1) + microseconds(9)}).ThatIsAll();
  Play(a, nanoseconds(0));
  Play(b, nanoseconds(0));
  Settle();  // both are known before either is due
  MoveTo(milliseconds(1));
  const auto sent = sink.Sent();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].call, sent[1].call);
  transmitter.Remove(a.stream);
  transmitter.Remove(b.stream);
  EXPECT_EQ(a.Counts().discarded, 1U);
}

// Gathered are more than eight, or economical ones.
TEST(ScheduleTransmitter, SpinsAtTheEndOfLongRestsOfGatheredStreamsThatArePrecise) {
  struct Row {
    std::size_t streams;
    bool is_precise;
    nanoseconds rest;
    nanoseconds spin;
  };
  const Row kRows[] = {{8, true, microseconds(300), microseconds(300)},
                       {9, true, microseconds(1000), microseconds(250)},
                       {9, true, microseconds(300), nanoseconds(0)},
                       {9, false, microseconds(1000), nanoseconds(0)},
                       {1, false, microseconds(1000), nanoseconds(0)}};
  for (const Row& row : kRows) {
    FakeFrameSink sink;
    auto* const clock = new SteppedWaiter;
    ScheduleTransmitter transmitter{std::unique_ptr<platform::DeadlineWaiter>(clock), false};
    transmitter.Start();
    StreamRules rules;
    rules.is_precise = row.is_precise;
    std::vector<std::unique_ptr<Player>> players;
    std::vector<ScheduledStream*> streams;
    for (std::size_t i = 0; i < row.streams; ++i) {
      players.push_back(std::make_unique<Player>('a', sink, rules));
      streams.push_back(&players.back()->Holding({row.rest}).stream);
    }
    ASSERT_TRUE(transmitter.Add(streams, nanoseconds(0)));
    EXPECT_EQ(clock->Spin(), row.spin) << row.streams << " streams";
    for (ScheduledStream* stream : streams) {
      transmitter.Remove(*stream);
    }
  }
}

TEST_F(SteppedTime, AStreamIsRemovedInAnyState) {
  enum Case { kNeverAdded, kAwaiting, kScheduled, kPaused, kGone };
  Player neighbour('n', sink, AtOnce());
  for (int i = 1; i <= 10; ++i) {
    neighbour.Push(seconds(i));
  }
  Play(neighbour.ThatIsAll(), nanoseconds(0));
  for (const Case which : {kNeverAdded, kAwaiting, kScheduled, kPaused, kGone}) {
    Player a('a', sink);
    if (which != kAwaiting) {
      a.Push(which == kGone ? nanoseconds(0) : seconds(100));
    }
    if (which == kGone) {
      a.ThatIsAll();
    }
    if (which != kNeverAdded) {
      Play(a, nanoseconds(0));
    }
    if (which == kPaused) {
      Pause(a, true);
    }
    if (which == kGone) {
      EXPECT_EQ(a.Ended(), 0);
      a.Push(seconds(100));  // built before it was known
    }
    auto removal = OnAnotherThread([&] { transmitter.Remove(a.stream); });
    ASSERT_TRUE(Returns(removal)) << which;
    const bool held = which == kScheduled || which == kPaused || which == kGone;
    EXPECT_EQ(a.Counts().discarded, held ? 1U : 0U) << which;
    if (which == kAwaiting || which == kScheduled || which == kPaused) {
      EXPECT_EQ(a.Ended(), ECANCELED) << which;
    }
  }
  MoveTo(seconds(10));
  EXPECT_EQ(neighbour.Ended(), 0);
  EXPECT_EQ(neighbour.Counts().late + neighbour.Counts().on_time, 10U);
  transmitter.Remove(neighbour.stream);
}

TEST_F(SteppedTime, ARemovalWaitsForAFrameInHand) {
  std::promise<void> in_hand;
  std::promise<void> go_on;
  auto may_go_on = go_on.get_future();
  sink.on_send = [&](std::span<const OutgoingFrame>) {
    in_hand.set_value();
    may_go_on.wait();
  };
  auto player = std::make_unique<Player>('a', sink);
  player->Holding({nanoseconds(0), seconds(5)});
  Play(*player, nanoseconds(0));
  in_hand.get_future().wait();
  auto removal = OnAnotherThread([&] {
    transmitter.Remove(player->stream);
    player.reset();
  });
  EXPECT_TRUE(Blocks(removal));
  go_on.set_value();
  EXPECT_TRUE(Returns(removal));
}

// Once the stream is gone, others wait for room again.
TEST_F(SteppedTime, ARemovalGivesUpForItsOwnTimeOnly) {
  sink.patience = std::chrono::hours(1);
  std::promise<void> in_hand;
  sink.on_send = [&, first = true](auto) mutable {
    if (std::exchange(first, false)) {
      in_hand.set_value();
      while (!clock->ShouldGiveUp()) {
        std::this_thread::sleep_for(milliseconds(1));
      }
    }
  };
  Player held('h', sink);
  Play(held.Holding({nanoseconds(0)}), nanoseconds(0));
  in_hand.get_future().wait();
  transmitter.Remove(held.stream);
  sink.SetRoom(0);
  Player next('n', sink);
  Play(next.Holding({nanoseconds(0)}).ThatIsAll(), nanoseconds(0));
  auto end = OnAnotherThread([&] { return next.Ended(); });
  EXPECT_TRUE(Blocks(end));
  sink.SetRoom(FakeFrameSink::kUnlimited);
  EXPECT_EQ(end.get(), 0);
  EXPECT_EQ(next.Counts().not_sent, 0U);
  transmitter.Remove(next.stream);
}

// A request that is taken as the removal is asked for must not leave another one behind. Found by a
// sanitizer, or as a crash.
TEST(ScheduleTransmitter, RemovalsMeetRequests) {
  FakeFrameSink sink;
  sink.keep_sent = false;
  ScheduleTransmitter transmitter(std::make_unique<platform::DeadlineWaiter>(), false);
  transmitter.Start();
  const auto come_and_go = [&](int rounds) {
    for (int i = 0; i < rounds; ++i) {
      Player player('a', sink);
      player.Holding({nanoseconds(0), microseconds(100), seconds(100)});
      ScheduledStream* const stream = &player.stream;
      transmitter.Add({&stream, 1}, {});
      for (int requests = i % 3; requests > 0; --requests) {
        player.stream.wants_pause = requests == 2;
        transmitter.Request(player.stream);
      }
      transmitter.Remove(player.stream);
    }
  };
  std::thread other([&] { come_and_go(300); });
  come_and_go(300);
  other.join();
}

TEST(ScheduleTransmitter, TakesNoMoreStreamsThanItHasRoomFor) {
  FakeFrameSink sink;
  ScheduleTransmitter transmitter(std::make_unique<platform::VirtualWaiter>(), true);
  Player player('a', sink);
  const std::vector<ScheduledStream*> many(ScheduleTransmitter::kMostStreams + 1, &player.stream);
  EXPECT_FALSE(transmitter.Add(many, {}));
}

}  // namespace
}  // namespace ipplayout
