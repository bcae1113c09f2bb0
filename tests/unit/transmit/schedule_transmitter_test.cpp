// SPDX-License-Identifier: MIT
#include "transmit/schedule_transmitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <future>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/virtual_waiter.h"
#include "tests/support/blocked_call.h"
#include "tests/support/fake_frame_sink.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::Pair;

// Nothing holds back what is late.
StreamRules AtOnce() {
  StreamRules rules;
  rules.late.what = WhenLate::kCatchUp;
  return rules;
}

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

// A playout whose frames say in two bytes whose they are and which.
class Player final : private StreamListener {
 public:
  Player(std::uint8_t name, FrameSink& sink, const StreamRules& rules = {},
         std::size_t ledger_frames = 0)
      : stream(16, 2, {ledger_frames, true}, rules, sink, *this), name_(name) {}

  void Push(nanoseconds due, bool leaves = true, std::uint32_t did = 0) {
    const std::uint8_t bytes[] = {name_, next_};
    QueuedFrame frame;
    frame.due = due;
    frame.datagram = next_++;
    frame.length = sizeof bytes;
    frame.leaves = leaves;
    frame.did = did;
    stream.ring.Push(frame, bytes);
  }
  Player& Holding(std::initializer_list<nanoseconds> dues) {
    for (const nanoseconds due : dues) {
      Push(due);
    }
    return *this;
  }
  Player& ThatIsAll() {
    stream.all_built = true;
    return *this;
  }
  // The error it ended with.
  int Ended() {
    auto end = ended_.get_future();
    return Returns(end) ? end.get() : -1;
  }
  TimingRecord::Counts Counts() const { return stream.timing.Read(); }
  int Rooms() const { return rooms_; }

  ScheduledStream stream;

 private:
  void OnRoom() override { ++rooms_; }
  void OnEnd(int error) override { ended_.set_value(error); }

  const std::uint8_t name_;
  std::uint8_t next_ = 0;
  std::atomic<int> rooms_{0};
  std::promise<int> ended_;
};

std::size_t Records(Player& player, std::span<IpPlayoutRecord> out) {
  return TakeRecords(player.stream.ledger, out,
                     [](const IpPlayoutDeparture& departure) { return departure.Frame; });
}

using Departures = std::vector<std::tuple<char, int, nanoseconds>>;  // name, frame, due

Departures DeparturesAt(const FakeFrameSink& sink) {
  Departures result;
  for (const auto& frame : sink.Sent()) {
    result.emplace_back(static_cast<char>(frame.bytes[0]), frame.bytes[1], frame.due);
  }
  return result;
}

class VirtualTime : public testing::Test {
 protected:
  VirtualTime() { transmitter.Start(); }

  void Play(std::initializer_list<Player*> players, std::optional<nanoseconds> start = {}) {
    std::vector<ScheduledStream*> streams;
    for (Player* player : players) {
      streams.push_back(&player->stream);
    }
    ASSERT_TRUE(transmitter.Add(streams, start));
  }
  void Remove(Player& player) {
    auto removal = OnAnotherThread([&] { transmitter.Remove(player.stream); });
    ASSERT_TRUE(Returns(removal));
  }

  FakeFrameSink sink;
  ScheduleTransmitter transmitter{std::make_unique<platform::VirtualWaiter>(), true};
};

TEST_F(VirtualTime, SendsByTimeAndTiesInTheOrderOfAdding) {
  Player a('a', sink);
  Player b('b', sink);
  Player c('c', sink);
  a.Holding({milliseconds(0), milliseconds(2), milliseconds(4)}).ThatIsAll();
  b.Holding({milliseconds(0), milliseconds(1), milliseconds(2)}).ThatIsAll();
  // As close to others as what would leave in one call with them in real time.
  c.Holding({nanoseconds(1), milliseconds(1) + microseconds(2), milliseconds(2)}).ThatIsAll();
  Play({&a, &b, &c});
  for (Player* player : {&a, &b, &c}) {
    EXPECT_EQ(player->Ended(), 0);
    Remove(*player);
    EXPECT_EQ(player->Counts().on_time, 3U);
    EXPECT_EQ(player->stream.timing.Lateness().Maximum(), nanoseconds(0));
  }
  EXPECT_EQ(DeparturesAt(sink),
            (Departures{{'a', 0, nanoseconds(0)},
                        {'b', 0, nanoseconds(0)},
                        {'c', 0, nanoseconds(0)},  // begins with its first frame
                        {'b', 1, milliseconds(1)},
                        {'c', 1, milliseconds(1) + microseconds(2) - nanoseconds(1)},
                        {'c', 2, milliseconds(2) - nanoseconds(1)},
                        {'a', 1, milliseconds(2)},
                        {'b', 2, milliseconds(2)},
                        {'a', 2, milliseconds(4)}}));
}

TEST_F(VirtualTime, TimeStandsUntilEachStreamHasSaidWhatComesNext) {
  Player a('a', sink);
  Player b('b', sink);
  a.Holding({milliseconds(0), milliseconds(5)}).ThatIsAll();
  b.Holding({milliseconds(0)});
  Play({&a, &b}, seconds(7));
  Player later('l', sink);
  later.ThatIsAll();
  Play({&later});  // has nothing to say, but is looked at behind the others
  EXPECT_EQ(later.Ended(), 0);
  Remove(later);
  EXPECT_LE(sink.SentFrames(), 2U);
  b.Push(milliseconds(3));
  b.ThatIsAll();
  transmitter.Request(b.stream);
  EXPECT_EQ(a.Ended(), 0);
  EXPECT_EQ(b.Ended(), 0);
  EXPECT_EQ(DeparturesAt(sink), (Departures{{'a', 0, seconds(7)},
                                            {'b', 0, seconds(7)},
                                            {'b', 1, seconds(7) + milliseconds(3)},
                                            {'a', 1, seconds(7) + milliseconds(5)}}));
  Remove(a);
  Remove(b);
}

// As a pipe is that nobody reads.
TEST_F(VirtualTime, AStopDoesNotWaitForASinkThatIsFullForGood) {
  FakeFrameSink full;
  full.patience = std::chrono::hours(1);
  full.SetRoom(0);
  std::promise<void> sending;
  full.on_send = [&, first = true](auto) mutable {
    if (std::exchange(first, false)) {
      sending.set_value();
    }
  };
  Player a('a', full);
  Player b('b', full);
  a.Holding({milliseconds(0), milliseconds(1)});
  b.Holding({milliseconds(0), milliseconds(1)}).ThatIsAll();
  Play({&a, &b});
  auto send = sending.get_future();
  ASSERT_TRUE(Returns(send));
  Remove(a);
  EXPECT_EQ(a.Ended(), ECANCELED);
  EXPECT_EQ(a.Counts().not_sent, 1U);
  full.SetRoom(FakeFrameSink::kUnlimited);
  EXPECT_EQ(b.Ended(), 0);
  EXPECT_EQ(b.Counts().not_sent, 1U);  // was in one call with that of the other
  EXPECT_EQ(b.Counts().on_time, 1U);
  Remove(b);
}

// As each socket is, while one leads through a slow queue.
TEST_F(VirtualTime, ASinkThatIsFullHoldsUpNoOther) {
  for (const WhenLate late : {WhenLate::kCatchUp, WhenLate::kDrop, WhenLate::kShift}) {
    FakeFrameSink narrow;
    narrow.patience = narrow.patience.zero();
    narrow.SetRoom(2);
    FakeFrameSink wide;
    wide.on_send = [&](auto frames) {
      if (frames[0].bytes[1] == 4) {
        narrow.SetRoom(FakeFrameSink::kUnlimited);
      }
    };
    StreamRules rules;
    rules.late.what = late;
    Player a('a', narrow, rules, 8);
    Player b('b', wide, rules);
    for (int ms = 0; ms < 6; ++ms) {
      a.Push(milliseconds(ms));
      b.Push(milliseconds(ms));
    }
    const nanoseconds start = transmitter.Now() + seconds(1);
    Play({&a.ThatIsAll(), &b.ThatIsAll()}, start);
    EXPECT_EQ(a.Ended(), 0);
    EXPECT_EQ(b.Ended(), 0);
    int number = 0;
    for (const auto& frame : wide.Sent()) {
      EXPECT_EQ(frame.time, start + milliseconds(number++));
    }
    EXPECT_EQ(number, 6);
    std::vector<int> of_a;
    for (const auto& frame : narrow.Sent()) {
      of_a.push_back(frame.bytes[1]);
    }
    const bool drops = late == WhenLate::kDrop;
    // The third waits from 2 to 4.5 ms: it and the one behind it are late by more than 1 ms.
    EXPECT_EQ(of_a, drops ? std::vector({0, 1, 4, 5}) : std::vector({0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(a.Counts().left_out, drops ? 2U : 0U);
    EXPECT_EQ(a.Counts().not_sent, 0U);
    EXPECT_EQ(a.Counts().shift, late == WhenLate::kShift ? microseconds(2500) : nanoseconds(0));
    EXPECT_GT(a.Counts().retries, 0U);
    std::array<IpPlayoutRecord, 8> records;
    EXPECT_EQ(Records(a, records), 6U);
    for (std::uint32_t i = 0; i < 6; ++i) {
      const bool is_left_out = drops && (i == 2 || i == 3);
      EXPECT_EQ(records[i].Did, is_left_out ? IPPLAYOUT_DID_LEAVE_OUT : 0) << i;
    }
    Remove(a);
    Remove(b);
  }
}

// Patience ends after a second, and is there again when a frame has left.
TEST_F(VirtualTime, ASinkThatIsFullForGoodRefuses) {
  for (const bool ends : {true, false}) {
    const nanoseconds begin = transmitter.Now();
    FakeFrameSink full;
    full.patience = full.patience.zero();
    full.SetRoom(1);
    StreamRules rules = AtOnce();
    rules.ends_when_refused = ends;
    Player a('a', full, rules);
    a.Holding({milliseconds(0), milliseconds(1), milliseconds(2)}).ThatIsAll();
    Play({&a});
    EXPECT_EQ(a.Ended(), ends ? ENOBUFS : 0);
    EXPECT_EQ(a.Counts().on_time, 1U);
    Remove(a);
    EXPECT_EQ(a.Counts().not_sent + a.Counts().discarded, 2U);
    EXPECT_GE(transmitter.Now() - begin, seconds(1));
    EXPECT_LT(transmitter.Now() - begin, seconds(2));
  }
}

// As a link that was away: what should have left meanwhile is lost, and the rest on time.
TEST_F(VirtualTime, WhatIsRefusedHoldsNothingBack) {
  FakeFrameSink away;
  away.patience = away.patience.zero();
  away.SetRoom(1);
  away.on_send = [&](auto frames) {
    if (frames[0].bytes[1] == 4) {
      away.SetRoom(FakeFrameSink::kUnlimited);
    }
  };
  StreamRules rules;
  rules.ends_when_refused = false;
  Player a('a', away, rules);
  a.Holding({milliseconds(0), milliseconds(1), milliseconds(500), milliseconds(900)});
  a.Push(milliseconds(1500));
  const nanoseconds start = transmitter.Now() + seconds(1);
  Play({&a.ThatIsAll()}, start);
  EXPECT_EQ(a.Ended(), 0);
  EXPECT_EQ(away.Sent().back().time, start + milliseconds(1500));
  EXPECT_EQ(a.Counts().on_time, 2U);
  EXPECT_EQ(a.Counts().not_sent, 3U);
  Remove(a);
}

TEST_F(VirtualTime, ARefusedFrameEndsOnePlayoutAndNotItsNeighbours) {
  for (const bool ends : {true, false}) {
    FakeFrameSink refusing;
    refusing.refuse = [](const OutgoingFrame& frame) {
      return FakeFrameSink::Refusal{frame.bytes[0] == 'b' && frame.bytes[1] == 1 ? EMSGSIZE : 0,
                                    true};
    };
    StreamRules rules;
    rules.ends_when_refused = ends;
    Player a('a', refusing, rules, 8);
    Player b('b', refusing, rules, 8);
    Player c('c', refusing, rules, 8);
    for (Player* player : {&a, &b, &c}) {
      player->Holding({milliseconds(0), milliseconds(1), milliseconds(2)}).ThatIsAll();
    }
    Play({&a, &b, &c});
    EXPECT_EQ(a.Ended(), 0);
    EXPECT_EQ(b.Ended(), ends ? EMSGSIZE : 0);
    EXPECT_EQ(c.Ended(), 0);
    for (Player* player : {&a, &b, &c}) {
      Remove(*player);
      const bool is_refused = player == &b;
      EXPECT_EQ(player->Counts().not_sent, is_refused ? 1U : 0U);
      EXPECT_EQ(player->Counts().on_time, is_refused ? (ends ? 1U : 2U) : 3U);
      EXPECT_EQ(player->Counts().discarded, is_refused && ends ? 1U : 0U);
    }
    std::array<IpPlayoutRecord, 8> records;
    ASSERT_EQ(Records(b, records), ends ? 2U : 3U);
    EXPECT_EQ(records[0].DepartureNs, records[0].DueNs + a.Counts().first_departure.count());
    EXPECT_EQ(records[1].DepartureNs, -1);
    EXPECT_EQ(records[1].Did, std::uint32_t{IPPLAYOUT_DID_REFUSE});
  }
}

TEST_F(VirtualTime, WhatStopsTheDestinationEndsAllThatSendToIt) {
  sink.refuse = [](const OutgoingFrame& frame) {
    return FakeFrameSink::Refusal{frame.bytes[1] == 1 ? ENETDOWN : 0, false};
  };
  Player a('a', sink);
  Player b('b', sink);
  for (Player* player : {&a, &b}) {
    player->Holding({milliseconds(0), milliseconds(1), milliseconds(2)}).ThatIsAll();
  }
  Play({&a, &b});
  for (Player* player : {&a, &b}) {
    EXPECT_EQ(player->Ended(), ENETDOWN);
    EXPECT_EQ(player->Counts().discarded, 1U);
    Remove(*player);
    EXPECT_EQ(player->Counts().on_time, 1U);
    EXPECT_EQ(player->Counts().not_sent, 1U);
    EXPECT_EQ(player->Counts().discarded, 1U);
  }
}

TEST_F(VirtualTime, FecIsOnTimeButNoDepartureOfTheStream) {
  Player a('a', sink);
  for (const int ms : {0, 1, 2, 5}) {
    a.Push(milliseconds(ms), true, ms % 2 == 1 ? IPPLAYOUT_DID_FEC_ROW : 0);
  }
  Play({&a.ThatIsAll()});
  EXPECT_EQ(a.Ended(), 0);
  Remove(a);
  EXPECT_EQ(a.Counts().on_time, 4U);
  EXPECT_EQ(a.Counts().longest_gap, milliseconds(2));
  EXPECT_EQ(a.Counts().last_departure - a.Counts().first_departure, milliseconds(2));
}

TEST_F(VirtualTime, APlaceWithoutAFrameIsRecordedAndNotSent) {
  Player a('a', sink, {}, 8);
  a.Push(milliseconds(0));
  a.Push(milliseconds(1), false);
  a.Push(milliseconds(2));
  Play({&a.ThatIsAll()});
  EXPECT_EQ(a.Ended(), 0);
  Remove(a);
  EXPECT_EQ(DeparturesAt(sink), (Departures{{'a', 0, milliseconds(0)}, {'a', 2, milliseconds(2)}}));
  EXPECT_EQ(a.Counts().on_time, 2U);
  std::array<IpPlayoutRecord, 8> records;
  ASSERT_EQ(Records(a, records), 3U);
  EXPECT_EQ(records[1].DepartureNs, -1);
  EXPECT_EQ(records[2].DepartureNs, 2'000'000);
}

// ---- Real time, by hand ----

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
