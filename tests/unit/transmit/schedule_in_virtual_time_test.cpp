// SPDX-License-Identifier: MIT
// The transmitter of a schedule where time passes as soon as all have said what comes next.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <future>
#include <memory>
#include <tuple>
#include <vector>

#include "platform/virtual_waiter.h"
#include "tests/support/blocked_call.h"
#include "tests/support/fake_frame_sink.h"
#include "tests/support/schedule_player.h"
#include "transmit/schedule_transmitter.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

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

}  // namespace
}  // namespace ipplayout
