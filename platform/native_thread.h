// SPDX-License-Identifier: MIT
// One operating-system thread: creation, name, priority, end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace ipplayout::platform {

// Takes none of the host's signals.
class NativeThread {
 public:
  using Entry = void (*)(void* argument);

  // Runs `entry(argument)` on a new thread. `stack_size` 0 is the platform's default; at most 15
  // characters of `name` show in `top -H`. Null when the system refuses a thread.
  static std::unique_ptr<NativeThread> Start(const char* name, std::size_t stack_size, Entry entry,
                                             void* argument);
  NativeThread(const NativeThread&) = delete;
  NativeThread& operator=(const NativeThread&) = delete;
  // Waits for the end of the entry function. In a forked child, where the thread does not exist,
  // it returns at once.
  ~NativeThread();

  std::uint32_t Id() const;

  // `level` is one of -15, -1, 0, 1, 2, 15 (idle to time critical). The levels keep their order;
  // as much of it is applied as the process may ask for, and a refusal is ignored. All of them run
  // ahead of ordinary processes, since a frame that is built late leaves late. `real_time` is for
  // threads that rest between bits of work: the kernel stops a real-time thread that does not for a
  // twentieth of every second.
  void SetPriority(std::int32_t level, bool real_time);

 private:
  struct State;
  explicit NativeThread(std::unique_ptr<State> state);

  std::unique_ptr<State> state_;
};

// Asks the kernel to wake the calling thread's timed sleeps as exactly as it can.
// False when it refuses.
bool UseFinestTimerSlack();

// Whether the calling thread has a nice value above 0, and so leaves the processor to others.
bool IsNice();

// Drops the calling thread's capabilities except those to change user and groups. Workers need
// none once their scheduling class is set; the adapter was opened by another thread. But setuid(2)
// and its like are applied to every thread by the C library, which ends the process when they
// succeed in one thread and not in another: a host that may change its identity goes on being able
// to.
void GiveUpCapabilities();

// Gives the rest of the calling thread's time slice away.
void YieldProcessor();

}  // namespace ipplayout::platform
