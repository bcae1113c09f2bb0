// SPDX-License-Identifier: MIT
// A mutex that clang's thread-safety analysis follows. Other compilers see plain standard ones.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define IPPLAYOUT_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define IPPLAYOUT_THREAD_SAFETY(attribute)
#endif

// A member that is read and written under `mutex` only.
#define IPPLAYOUT_GUARDED_BY(mutex) IPPLAYOUT_THREAD_SAFETY(guarded_by(mutex))
// A function whose caller holds `mutex`.
#define IPPLAYOUT_REQUIRES(mutex) IPPLAYOUT_THREAD_SAFETY(requires_capability(mutex))

namespace ipplayout::platform {

class IPPLAYOUT_THREAD_SAFETY(capability("mutex")) Mutex {
 public:
  void Lock() IPPLAYOUT_THREAD_SAFETY(acquire_capability()) { mutex_.lock(); }
  void Unlock() IPPLAYOUT_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }

 private:
  friend class ConditionVariable;

  std::mutex mutex_;
};

// Holds a mutex for the life of a block.
class IPPLAYOUT_THREAD_SAFETY(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) IPPLAYOUT_THREAD_SAFETY(acquire_capability(mutex))
      : mutex_(mutex) {
    mutex_.Lock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() IPPLAYOUT_THREAD_SAFETY(release_capability()) { mutex_.Unlock(); }

 private:
  Mutex& mutex_;
};

class ConditionVariable {
 public:
  // Wakes up without a reason at times, so callers loop. It takes no predicate because the analysis
  // does not know that a lambda would run under the mutex.
  void Wait(Mutex& mutex) IPPLAYOUT_REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();  // the caller's to unlock
  }
  // The same, but not past `deadline` on the monotonic clock. False when it has passed.
  bool WaitUntil(Mutex& mutex, std::chrono::nanoseconds deadline) IPPLAYOUT_REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    const auto end = std::chrono::steady_clock::time_point(deadline);
    const bool in_time = condition_.wait_until(lock, end) == std::cv_status::no_timeout;
    lock.release();
    return in_time;
  }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace ipplayout::platform
