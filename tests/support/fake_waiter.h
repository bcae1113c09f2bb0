// SPDX-License-Identifier: MIT
// A DeadlineWaiter on a clock that only a test moves.
#pragma once

#include <atomic>
#include <chrono>

#include "platform/deadline_waiter.h"

namespace ipplayout {

// A wait sets the clock to its deadline and returns at once.
class FakeWaiter : public platform::DeadlineWaiter {
 public:
  explicit FakeWaiter(std::chrono::nanoseconds now = std::chrono::seconds(1000)) : now_(now) {}

  std::chrono::nanoseconds Now() const override {
    ++readings_;
    return now_.load();
  }
  void WaitUntil(std::chrono::nanoseconds deadline) override {
    ++waits_;
    if (deadline > now_.load()) {
      now_ = deadline + lateness_;
    }
  }

  void Advance(std::chrono::nanoseconds time) { now_ = now_.load() + time; }
  void SetLateness(std::chrono::nanoseconds lateness) { lateness_ = lateness; }
  // The clock, read without being counted.
  std::chrono::nanoseconds Peek() const { return now_.load(); }
  int Readings() const { return readings_; }
  int Waits() const { return waits_; }

 private:
  std::atomic<std::chrono::nanoseconds> now_;
  std::chrono::nanoseconds lateness_{0};
  mutable std::atomic<int> readings_{0};
  std::atomic<int> waits_{0};
};

}  // namespace ipplayout
