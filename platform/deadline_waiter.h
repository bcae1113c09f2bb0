// SPDX-License-Identifier: MIT
// Waiting for a point in time to within a microsecond, with a way to cut the wait short and one to
// give up what is waited for.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace ipplayout::platform {

// Sleeps until shortly before the deadline and spins for the rest, because a sleeping thread is
// woken late. How late differs between machines and moments: the time left to spin follows the
// lateness of the wake-ups seen so far, up to three quarters of the wait. One thread waits; any
// thread may limit its waits.
class DeadlineWaiter {
 public:
  // A wait of at least this length is slept through in part however late the wake-ups are, so that
  // a real-time thread leaves the processor to others.
  static constexpr std::chrono::microseconds kAlwaysSlept{80};

  static constexpr std::chrono::nanoseconds kNever{INT64_MAX};

  DeadlineWaiter();
  virtual ~DeadlineWaiter() = default;

  // Current time on the clock that deadlines are given on.
  virtual std::chrono::nanoseconds Now() const;

  // Returns at `deadline`, or at the limit if that comes first; at once when either has passed.
  virtual void WaitUntil(std::chrono::nanoseconds deadline);

  // Ends as WaitUntil does, or with an Interrupt: an earlier one that ended no wait yet ends this
  // one at once. Spins for `longest_spin` at most, so that 0 leaves the whole wait to the kernel. A
  // deadline of kNever is not looked at.
  virtual void WaitUntilInterrupted(std::chrono::nanoseconds deadline,
                                    std::chrono::nanoseconds longest_spin);
  // Any thread.
  void Interrupt();

  // From now on waits are hardly spun through: they cost less and end later. Before the first one.
  void SpinLittle();

  // From now on no wait, the present one included, lasts beyond `latest`.
  void LimitWaits(std::chrono::nanoseconds latest);
  void RemoveLimit();

  // From `time` on what has not been done is given up, so that a stop does not wait for it. Any
  // thread.
  void GiveUpAt(std::chrono::nanoseconds time) { give_up_ns_.store(time.count()); }
  // Reads the clock only where GiveUpAt has been called.
  bool ShouldGiveUp() const {
    const std::int64_t time = give_up_ns_.load(std::memory_order_relaxed);
    return time != kNoLimit && Now().count() >= time;
  }

 protected:
  // Whether an Interrupt came that ended no wait yet. The waiting thread's; uses it up.
  bool TakeInterrupt() {
    return interrupted_.load(std::memory_order_relaxed) && interrupted_.exchange(false);
  }

 private:
  static constexpr std::int64_t kNoLimit = INT64_MAX;

  void Wait(std::chrono::nanoseconds deadline, std::chrono::nanoseconds longest_spin,
            bool interruptible);
  void LearnFrom(std::chrono::nanoseconds lateness);

  std::atomic<std::int64_t> limit_ns_{kNoLimit};
  std::atomic<std::int64_t> give_up_ns_{kNoLimit};
  // Futex word: its change tells a sleeper that the limit has moved or that it is interrupted.
  std::atomic<std::uint32_t> changes_{0};
  std::atomic<bool> interrupted_{false};
  std::chrono::nanoseconds longest_spin_;
  // The waiting thread's; atomic because the pump waits too when it transmits the last batch.
  std::atomic<std::int64_t> spin_ns_;
};

}  // namespace ipplayout::platform
