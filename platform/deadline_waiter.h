// Waiting for a point in time to within a microsecond, with a way to cut the wait short.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace ipplayout::platform {

// Sleeps until shortly before the deadline and spins for the rest, because a sleeping thread is
// woken tens of microseconds late. One thread waits; any thread may limit its waits.
class DeadlineWaiter {
 public:
  virtual ~DeadlineWaiter() = default;

  // Current time on the clock that deadlines are given on.
  virtual std::chrono::nanoseconds Now() const;

  // Returns at `deadline`, or at the limit if that comes first; at once when either has passed.
  virtual void WaitUntil(std::chrono::nanoseconds deadline);

  // From now on no wait, the present one included, lasts beyond `latest`.
  void LimitWaits(std::chrono::nanoseconds latest);
  void RemoveLimit();

 private:
  static constexpr std::int64_t kNoLimit = INT64_MAX;

  std::atomic<std::int64_t> limit_ns_{kNoLimit};
  // Futex word: its change tells a sleeper that the limit has moved.
  std::atomic<std::uint32_t> limit_changes_{0};
};

}  // namespace ipplayout::platform
