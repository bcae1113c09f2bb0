// SPDX-License-Identifier: MIT
#include "platform/native_thread.h"

#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "platform/signal.h"

namespace ipplayout::platform {
namespace {

constexpr std::size_t kVisibleNameLength = 15;  // TASK_COMM_LEN without its NUL

struct PriorityRow {
  std::int32_t level;
  int round_robin;  // SCHED_RR priority
  int nice;         // in the ordinary class
};

constexpr std::array<PriorityRow, 6> kPriorities{{
    {-15, 1, -10},
    {-1, 2, -11},
    {0, 3, -12},
    {1, 4, -13},
    {2, 5, -16},
    {15, 6, -20},
}};

// The nearest that an unprivileged process gets to a nice value below 0 without losing the order
// against a lower level.
int UnprivilegedNice(std::int32_t level) {
  return level < 0 ? 1 : 0;
}

void SetNice(pid_t thread, const PriorityRow& row) {
  const auto id = static_cast<id_t>(thread);
  if (::setpriority(PRIO_PROCESS, id, row.nice) != 0) {
    ::setpriority(PRIO_PROCESS, id, UnprivilegedNice(row.level));
  }
}

// While it lives, no signal interrupts the calling thread: neither the C library's own one, by
// which it has every thread follow a change of user or groups and which pthread_sigmask leaves out.
class AllSignalsHeld {
 public:
  AllSignalsHeld() { Exchange(&kAll, &previous_); }
  AllSignalsHeld(const AllSignalsHeld&) = delete;
  AllSignalsHeld& operator=(const AllSignalsHeld&) = delete;
  ~AllSignalsHeld() { Exchange(&previous_, nullptr); }

 private:
  using KernelMask = std::uint64_t;
  static constexpr KernelMask kAll = ~KernelMask{0};

  static void Exchange(const KernelMask* mask, KernelMask* previous) {
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, mask, previous, sizeof *mask);
  }

  KernelMask previous_ = 0;
};

}  // namespace

struct NativeThread::State {
  Entry entry = nullptr;
  void* argument = nullptr;
  std::array<char, kVisibleNameLength + 1> name{};
  pthread_t thread{};
  pid_t process = 0;
  pid_t id = 0;
  Signal id_known;

  static void* Main(void* opaque) {
    auto* self = static_cast<State*>(opaque);
    self->id = static_cast<pid_t>(::syscall(SYS_gettid));
    ::prctl(PR_SET_NAME, self->name.data());
    self->id_known.Set();
    self->entry(self->argument);
    return nullptr;
  }
};

NativeThread::NativeThread(std::unique_ptr<State> state) : state_(std::move(state)) {}

std::unique_ptr<NativeThread> NativeThread::Start(const char* name, std::size_t stack_size,
                                                  Entry entry, void* argument) {
  // A thread that there is no memory for is refused like one that the system refuses.
  std::unique_ptr<State> state(new (std::nothrow) State);
  if (state == nullptr) {
    return nullptr;
  }
  state->entry = entry;
  state->argument = argument;
  std::strncpy(state->name.data(), name, kVisibleNameLength);
  state->process = ::getpid();
  std::unique_ptr<NativeThread> owner(new (std::nothrow) NativeThread(std::move(state)));
  if (owner == nullptr) {
    return nullptr;
  }
  State& shared = *owner->state_;

  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  if (stack_size != 0) {
    ::pthread_attr_setstacksize(&attributes, stack_size);
  }
  // A new thread inherits the mask: the host's signals stay with the host's threads.
  sigset_t all;
  sigset_t previous;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  const int result = ::pthread_create(&shared.thread, &attributes, State::Main, &shared);
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  ::pthread_attr_destroy(&attributes);
  if (result != 0) {
    shared.process = 0;
    return nullptr;
  }
  shared.id_known.Wait();
  return owner;
}

NativeThread::~NativeThread() {
  if (state_->process == ::getpid()) {
    ::pthread_join(state_->thread, nullptr);
  }
}

std::uint32_t NativeThread::Id() const {
  return static_cast<std::uint32_t>(state_->id);
}

void NativeThread::SetPriority(std::int32_t level, bool real_time) {
  for (const PriorityRow& row : kPriorities) {
    if (row.level != level) {
      continue;
    }
    sched_param parameters{};
    parameters.sched_priority = real_time ? row.round_robin : 0;
    const int policy = real_time ? SCHED_RR : SCHED_OTHER;
    if (::sched_setscheduler(state_->id, policy, &parameters) != 0 || !real_time) {
      SetNice(state_->id, row);
    }
  }
}

bool UseFinestTimerSlack() {
  return ::prctl(PR_SET_TIMERSLACK, 1UL) == 0;
}

bool IsNice() {
  return ::getpriority(PRIO_PROCESS, 0) > 0;
}

void GiveUpCapabilities() {
  const AllSignalsHeld between_look_and_change;
  constexpr std::uint32_t kIdentity = 1U << CAP_SETUID | 1U << CAP_SETGID;
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> own{};
  if (::syscall(SYS_capget, &header, own.data()) != 0) {
    return;
  }
  const std::uint32_t permitted = own[0].permitted & kIdentity;
  const std::uint32_t effective = own[0].effective & kIdentity;
  own = {};
  own[0].permitted = permitted;
  own[0].effective = effective;
  // To give up is always allowed.
  ::syscall(SYS_capset, &header, own.data());
}

void YieldProcessor() {
  ::sched_yield();
}

}  // namespace ipplayout::platform
