// SPDX-License-Identifier: MIT
#include "platform/signal.h"

#include <gtest/gtest.h>

#include <thread>

namespace ipplayout::platform {
namespace {

// Two threads take turns; what one wrote before it set the other's signal must be there.
TEST(SignalTest, LosesNoWakeUpAndPublishesWhatWasWritten) {
  constexpr int kRounds = 100000;
  Signal ping;
  Signal pong;
  int ball = 0;
  std::thread other([&] {
    for (int round = 0; round < kRounds; ++round) {
      ping.Wait();
      ping.Reset();
      ++ball;
      pong.Set();
    }
  });
  for (int round = 0; round < kRounds; ++round) {
    ++ball;
    ping.Set();
    if (round % 1000 == 0) {
      std::this_thread::yield();  // lets the other one fall asleep, or not
    }
    pong.Wait();
    pong.Wait();  // stays set until it is reset
    pong.Reset();
    ASSERT_EQ(ball, 2 * round + 2);
  }
  other.join();
}

}  // namespace
}  // namespace ipplayout::platform
