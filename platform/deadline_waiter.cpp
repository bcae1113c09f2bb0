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
  nanoseconds now = MonotonicNow();
  const nanoseconds length = deadline - now;
  const nanoseconds most_spin =
      length < kAlwaysSlept ? longest_spin_ : std::min(longest_spin_, length * 3 / 4);
  for (;;) {
    const std::uint32_t seen = limit_changes_.load();
    const auto target = std::min(deadline, std::chrono::nanoseconds(limit_ns_.load()));
    const nanoseconds spin(spin_ns_.load(std::memory_order_relaxed));
    const auto wake = target - std::min(spin, most_spin);
    if (now < wake) {
      FutexWaitUntil(limit_changes_, seen, wake);
      now = MonotonicNow();
      LearnFrom(now - wake);
      continue;
    }
    while (MonotonicNow() < target) {
      SpinOnce();
    }
    return;
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
  limit_changes_.fetch_add(1);
  FutexWakeAll(limit_changes_);
}

void DeadlineWaiter::RemoveLimit() {
  limit_ns_.store(kNoLimit);
}

}  // namespace ipplayout::platform
