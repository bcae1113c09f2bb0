// SPDX-License-Identifier: MIT
// Base of the library's worker threads: name, priority, start, stop request.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/mutex.h"
#include "platform/native_thread.h"

namespace ipplayout {

// One of six levels, made by its factory only.
class OsaThreadPriority {
 public:
  static constexpr OsaThreadPriority Idle() { return OsaThreadPriority(-15); }
  static constexpr OsaThreadPriority BelowNormal() { return OsaThreadPriority(-1); }
  static constexpr OsaThreadPriority Normal() { return OsaThreadPriority(0); }
  static constexpr OsaThreadPriority AboveNormal() { return OsaThreadPriority(1); }
  static constexpr OsaThreadPriority Highest() { return OsaThreadPriority(2); }
  static constexpr OsaThreadPriority TimeCritical() { return OsaThreadPriority(15); }

  constexpr std::int32_t Level() const { return level_; }
  friend constexpr bool operator==(OsaThreadPriority, OsaThreadPriority) = default;

 private:
  explicit constexpr OsaThreadPriority(std::int32_t level) : level_(level) {}

  std::int32_t level_;
};

// Start, Stop, Join and the destructor belong to controlling threads, Run is the worker's body.
class OsaThread {
 public:
  static constexpr std::size_t kNameSize = 32;

  // `name` is cut to 31 characters; `stack_size` 0 is the system's default. Creates no thread.
  OsaThread(const char* name, std::uint32_t stack_size, OsaThreadPriority priority);
  OsaThread(const OsaThread&) = delete;
  OsaThread& operator=(const OsaThread&) = delete;
  // The derived class has joined before, since its part of the object is gone by now.
  virtual ~OsaThread() = default;

  // Clears the stop request and runs Run on a new thread, after an earlier one has ended. False
  // when the system refuses a thread.
  bool Start();

  // Asks the body to end; neither waits nor, by itself, wakes it.
  virtual void Stop() { stop_requested_.store(true); }

  // Waits until the body has returned and its thread is gone.
  void Join();

  // Applies and keeps the priority, and returns the one before; changes nothing before Start. May
  // be called by the worker itself.
  OsaThreadPriority SetPriority(OsaThreadPriority priority);

  // Whether Start and SetPriority apply the priority in the real-time class. Before Start.
  void UseRealTime(bool real_time) { real_time_ = real_time; }

  const char* Name() const { return name_.data(); }

 protected:
  // Starts leave no line in the trace log: for threads of which a host may have many.
  void StartSilently() { is_traced_ = false; }
  virtual void Run() = 0;
  bool StopRequested() const { return stop_requested_.load(); }

 private:
  static void Entry(void* self);

  std::array<char, kNameSize> name_{};
  std::uint32_t stack_size_;
  bool real_time_ = false;
  bool is_traced_ = true;
  std::atomic<bool> stop_requested_{false};

  // Held while a thread is created and given its stored priority, so
  // that a priority which the new thread sets for itself comes after.
  platform::Mutex mutex_;
  std::unique_ptr<platform::NativeThread> thread_ IPPLAYOUT_GUARDED_BY(mutex_);
  OsaThreadPriority priority_ IPPLAYOUT_GUARDED_BY(mutex_);
};

}  // namespace ipplayout
