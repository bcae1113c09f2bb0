// SPDX-License-Identifier: MIT
// A manual-reset event between two of the library's own threads.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace ipplayout::platform {

// Stays set until it is reset. Set costs one atomic exchange, and a system call only when a thread
// sleeps on it. What the setting thread wrote before Set is visible to whoever returns from Wait.
// One thread waits at a time. Where its waits turn out to be shorter than falling asleep and being
// woken, it spins for a while first.
class Signal {
 public:
  explicit Signal(bool set = false) : state_(set ? kSet : kClear) {}
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  void Set();
  void Reset();
  void Wait();
  // Not past `deadline` on the monotonic clock: false when it is not set by then.
  bool WaitUntil(std::chrono::nanoseconds deadline);
  bool IsSet() const { return state_.load(std::memory_order_acquire) == kSet; }

 private:
  enum State : std::uint32_t { kClear, kSet, kClearWithSleeper };

  bool Spin() const;
  void Sleep();

  std::atomic<std::uint32_t> state_;

  // The waiting thread's own: waits to sleep through before it spins again.
  std::uint32_t sleeps_left_ = 0;
};

}  // namespace ipplayout::platform
