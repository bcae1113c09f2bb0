// SPDX-License-Identifier: MIT
#include "platform/deadline_waiter.h"

#include <gtest/gtest.h>

#include <future>

#include "tests/support/blocked_call.h"

namespace ipplayout::platform {
namespace {

using std::chrono::hours;
using std::chrono::microseconds;

TEST(DeadlineWaiterTest, NeverReturnsBeforeItsDeadline) {
  DeadlineWaiter waiter;
  for (int wait = -10; wait < 600; wait += 7) {
    const auto deadline = waiter.Now() + microseconds(wait);
    waiter.WaitUntil(deadline);
    ASSERT_GE(waiter.Now(), deadline) << wait;
  }
}

TEST(DeadlineWaiterTest, ALimitEndsWaitsThatGoOnAndThoseToCome) {
  for (int round = 0; round < 500; ++round) {
    DeadlineWaiter waiter;
    const auto latest = waiter.Now() + microseconds(round % 5 * 100);
    auto wait = OnAnotherThread([&] { waiter.WaitUntil(waiter.Now() + hours(1)); });
    if (round % 2 == 0) {
      std::this_thread::yield();
    }
    waiter.LimitWaits(latest);
    ASSERT_TRUE(Returns(wait));
    EXPECT_GE(waiter.Now(), latest);
    waiter.WaitUntil(waiter.Now() + hours(1));
  }
}

}  // namespace
}  // namespace ipplayout::platform
