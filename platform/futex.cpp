// SPDX-License-Identifier: MIT
#include "platform/futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

#include "platform/clock.h"

namespace ipplayout::platform {
namespace {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

void Wait(const std::atomic<std::uint32_t>& word, std::uint32_t expected,
          const timespec* deadline) {
  // The bitset form takes an absolute time on CLOCK_MONOTONIC, so no time is lost in between.
  ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, expected, deadline, nullptr,
            FUTEX_BITSET_MATCH_ANY);
}

}  // namespace

void FutexWait(const std::atomic<std::uint32_t>& word, std::uint32_t expected) {
  Wait(word, expected, nullptr);
}

void FutexWaitUntil(const std::atomic<std::uint32_t>& word, std::uint32_t expected,
                    std::chrono::nanoseconds deadline) {
  const timespec until = ToTimespec(deadline);
  Wait(word, expected, &until);
}

void FutexWakeAll(const std::atomic<std::uint32_t>& word) {
  ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace ipplayout::platform
