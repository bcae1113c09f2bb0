// SPDX-License-Identifier: MIT
#include "host/stream/clock_follower.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

namespace ipplay {
namespace {

using namespace std::chrono_literals;
using Time = ClockFollower::Time;

constexpr Time kLead = 200ms;
constexpr Time kPiece = 40ms;

// An hour of a source whose clock is `ppm` faster, in pieces of 40 ms. The first one comes `kLead`
// before it is played.
struct Hour {
  double ppm = 0;
  std::function<Time(Time)> delay = [](Time) { return Time(0); };  // of what is sent at a time
  bool held_up = false;

  void Run() {
    Time second_ago{0};
    Time last_second = std::chrono::seconds(1);
    for (int piece = 0; piece < 90'000; ++piece) {
      const Time stream = piece * kPiece;
      const Time sent(std::llround(static_cast<double>(stream.count()) / (1 + ppm * 1e-6)));
      const Time arrival = sent + delay(sent);
      const Time played = follower.Map(stream);
      if (held_up) {
        follower.HeldUp();
      }
      follower.Arrived(played + kLead, arrival);
      // That of a network without delay: what the stream waits from its source to its departure.
      const Time wait = played + kLead - sent;
      least = std::min(least, wait);
      most = std::max(most, wait);
      last_wait = wait;
      if (piece % 25 == 0) {
        if (piece >= 50 && moves == follower.Moves()) {
          steepest = std::max(steepest, std::chrono::abs(played - second_ago - last_second));
        }
        moves = follower.Moves();
        last_second = piece == 0 ? Time(1s) : played - second_ago;
        second_ago = played;
      }
    }
  }

  ClockFollower follower{kLead};
  Time least = 1h;
  Time most = -1h;
  Time last_wait{0};
  Time steepest{0};  // by how much a second of the stream took longer than the one before
  std::uint64_t moves = 0;
};

std::function<Time(Time)> Jitter(Time most) {
  return [most, random = std::mt19937(1)](Time) mutable {
    return std::uniform_int_distribution<Time::rep>(0, most.count())(random) * 1ns;
  };
}

// An hour at 50 ppm is 180 ms, at 250 ppm 900 ms.
TEST(ClockFollower, KeepsTheDelayThroughAnHour) {
  for (const double ppm : {0.0, 50.0, -50.0, 200.0, -250.0}) {
    for (const Time jitter : {Time(0), Time(30ms), Time(100ms)}) {
      Hour hour{.ppm = ppm, .delay = Jitter(jitter)};
      hour.Run();
      const std::string of = std::to_string(ppm) + " " + std::to_string(jitter.count());
      EXPECT_LT(std::chrono::abs(hour.last_wait - kLead), 4ms) << of;
      // Until the clock is known, it is off by ppm / (e * 0.005 rad/s), with much jitter twice
      // that.
      EXPECT_GT(hour.least, kLead - 45ms) << of;
      EXPECT_LT(hour.most, kLead + 45ms) << of;
      EXPECT_NEAR(hour.follower.Ppm(), ppm, 15) << of;
      EXPECT_LE(hour.steepest, 1us + 2ns) << of;  // 1 ppm a second
      EXPECT_EQ(hour.follower.Moves(), 0U) << of;
    }
  }
}

TEST(ClockFollower, DoesNotDriftByWhatASourceHeldUpOnce) {
  Hour hour{.ppm = 50, .delay = [](Time sent) { return sent > 20min ? Time(80ms) : Time(0); }};
  hour.Run();
  EXPECT_LT(std::chrono::abs(hour.last_wait - kLead), 4ms);
  EXPECT_NEAR(hour.follower.Ppm(), 50, 5);
  EXPECT_LE(hour.steepest, 1us + 2ns);
}

TEST(ClockFollower, MovesThePlayoutWhenNothingComesInTime) {
  Hour hour{.ppm = -50, .delay = [](Time sent) { return sent > 20min ? Time(3s) : Time(0); }};
  hour.Run();
  EXPECT_EQ(hour.follower.Moves(), 1U);
  EXPECT_LT(std::chrono::abs(hour.last_wait - kLead - 3s), 30ms);
  EXPECT_NEAR(hour.follower.Ppm(), -50, 5);
}

TEST(ClockFollower, LeavesItsOwnClockWhereItHoldsTheSourceUp) {
  Hour hour{.ppm = 100, .held_up = true};
  hour.Run();
  EXPECT_EQ(hour.follower.Ppm(), 0);
}

}  // namespace
}  // namespace ipplay
