// SPDX-License-Identifier: MIT
#include "platform/deadline_waiter.h"

#include <algorithm>

#include "platform/clock.h"
#include "platform/futex.h"
#include "platform/spin.h"

namespace ipplayout::platform {
namespace {

using std::chrono::nanoseconds;

// Wake-ups were measured 5 to 70 us late on an idle virtual machine, and much later on a busy one;
// what lies beyond the most is left to be late rather than spun for.
constexpr nanoseconds kLeastSpin = std::chrono::microseconds(15);
constexpr nanoseconds kMostSpin = std::chrono::microseconds(200);
constexpr nanoseconds kFirstSpin = std::chrono::microseconds(150);
// Wake-ups after which a single late one is nearly forgotten.
constexpr std::int64_t kMemory = 256;

}  // namespace

DeadlineWaiter::DeadlineWaiter() : longest_spin_(kMostSpin), spin_ns_(kFirstSpin.count()) {}

void DeadlineWaiter::SpinLittle() {
  longest_spin_ = kLeastSpin;
}

std::chrono::nanoseconds DeadlineWaiter::Now() const {
  return MonotonicNow();
}

void DeadlineWaiter::WaitUntil(std::chrono::nanoseconds deadline) {
  Wait(deadline, longest_spin_, false);
}

void DeadlineWaiter::WaitUntilInterrupted(std::chrono::nanoseconds deadline,
                                          std::chrono::nanoseconds longest_spin) {
  Wait(deadline, std::min(longest_spin, longest_spin_), true);
}

void DeadlineWaiter::Wait(nanoseconds deadline, nanoseconds longest_spin, bool interruptible) {
  nanoseconds now = MonotonicNow();
  const nanoseconds length = deadline - now;
  const nanoseconds most_spin =
      length < kAlwaysSlept ? longest_spin : std::min(longest_spin, length / 4 * 3);
  for (;;) {
    const std::uint32_t seen = changes_.load();
    if (interruptible && TakeInterrupt()) {
      return;
    }
    const auto target = std::min(deadline, nanoseconds(limit_ns_.load()));
    const nanoseconds spin(spin_ns_.load(std::memory_order_relaxed));
    const auto wake = target - std::min(spin, most_spin);
    if (now < wake) {
      FutexWaitUntil(changes_, seen, wake);
      now = MonotonicNow();
      if (now >= wake) {
        LearnFrom(now - wake);
      }
      continue;
    }
    while (now < target && !(interruptible && interrupted_.load(std::memory_order_relaxed))) {
      SpinOnce();
      now = MonotonicNow();
    }
    if (now >= target) {
      return;
    }
  }
}

// Follows a rise at once, with a quarter on top, and falls slowly.
void DeadlineWaiter::LearnFrom(nanoseconds lateness) {
  const nanoseconds spin(spin_ns_.load(std::memory_order_relaxed));
  const nanoseconds needed = lateness + lateness / 4 + kLeastSpin / 2;
  const nanoseconds faded = spin - (spin - kLeastSpin) / kMemory;
  const nanoseconds next = std::clamp(std::max(needed, faded), kLeastSpin, kMostSpin);
  spin_ns_.store(next.count(), std::memory_order_relaxed);
}

void DeadlineWaiter::LimitWaits(std::chrono::nanoseconds latest) {
  limit_ns_.store(latest.count());
  changes_.fetch_add(1);
  FutexWakeAll(changes_);
}

void DeadlineWaiter::Interrupt() {
  interrupted_.store(true);
  changes_.fetch_add(1);
  FutexWakeAll(changes_);
}

void DeadlineWaiter::RemoveLimit() {
  limit_ns_.store(kNoLimit);
}

}  // namespace ipplayout::platform
