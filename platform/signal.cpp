// SPDX-License-Identifier: MIT
#include "platform/signal.h"

#include "platform/clock.h"
#include "platform/futex.h"
#include "platform/spin.h"

namespace ipplayout::platform {
namespace {

// A sleeper is woken some tens of microseconds after the signal: a wait that took no longer than
// kShortWait asleep is likely to end within kLongestSpin when it is spun through.
constexpr std::chrono::microseconds kLongestSpin{50};
constexpr std::chrono::microseconds kShortWait{100};
// Sleeps after a spin that did not pay off, so that steady long waits spend less than a hundredth
// of their time spinning.
constexpr std::uint32_t kSleepsAfterVainSpin = 64;

}  // namespace

void Signal::Set() {
  if (state_.exchange(kSet) == kClearWithSleeper) {
    FutexWakeAll(state_);
  }
}

void Signal::Reset() {
  std::uint32_t expected = kSet;
  state_.compare_exchange_strong(expected, kClear);
}

void Signal::Wait() {
  if (IsSet()) {
    return;
  }
  if (sleeps_left_ == 0) {
    if (Spin()) {
      return;
    }
    sleeps_left_ = kSleepsAfterVainSpin;
  }
  const auto start = MonotonicNow();
  Sleep();
  const bool was_short = MonotonicNow() - start < kShortWait;
  sleeps_left_ = was_short ? sleeps_left_ / 2 : kSleepsAfterVainSpin;
}

bool Signal::WaitUntil(std::chrono::nanoseconds deadline) {
  for (;;) {
    std::uint32_t state = state_.load();
    if (state == kSet) {
      return true;
    }
    if (MonotonicNow() >= deadline) {
      return false;
    }
    if (state == kClear && !state_.compare_exchange_strong(state, kClearWithSleeper)) {
      continue;
    }
    FutexWaitUntil(state_, kClearWithSleeper, deadline);
  }
}

bool Signal::Spin() const {
  constexpr int kLooksPerClockRead = 16;
  const auto end = MonotonicNow() + kLongestSpin;
  do {
    for (int look = 0; look < kLooksPerClockRead; ++look) {
      if (IsSet()) {
        return true;
      }
      SpinOnce();
    }
  } while (MonotonicNow() < end);
  return false;
}

void Signal::Sleep() {
  for (;;) {
    std::uint32_t state = state_.load();
    if (state == kSet) {
      return;
    }
    if (state == kClear && !state_.compare_exchange_strong(state, kClearWithSleeper)) {
      continue;
    }
    FutexWait(state_, kClearWithSleeper);
  }
}

}  // namespace ipplayout::platform
