// SPDX-License-Identifier: MIT
// A clock that only its own waits move.
#pragma once

#include <atomic>
#include <chrono>

#include "platform/deadline_waiter.h"

namespace ipplayout::platform {

// A wait for a point in time returns at once, and then it is that time. Begins at 0.
class VirtualWaiter final : public DeadlineWaiter {
 public:
  std::chrono::nanoseconds Now() const override { return now_.load(std::memory_order_relaxed); }

  void WaitUntil(std::chrono::nanoseconds deadline) override {
    if (deadline > Now()) {
      now_.store(deadline, std::memory_order_relaxed);
    }
  }

  // Without a deadline it waits for the interrupt, in real time.
  void WaitUntilInterrupted(std::chrono::nanoseconds deadline,
                            std::chrono::nanoseconds longest_spin) override {
    if (deadline == kNever) {
      DeadlineWaiter::WaitUntilInterrupted(deadline, longest_spin);
    } else if (!TakeInterrupt()) {
      WaitUntil(deadline);
    }
  }

 private:
  std::atomic<std::chrono::nanoseconds> now_{std::chrono::nanoseconds::zero()};
};

}  // namespace ipplayout::platform
