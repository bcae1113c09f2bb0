// SPDX-License-Identifier: MIT
// The library's time for the interface's fuzzer: it passes as the library looks at it, and a sleep
// ends at once. The linker puts these in the place of the platform's functions.
#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/futex.h"
#include "tests/support/fake_driver.h"

namespace {

std::atomic<std::int64_t> now_ns{1'000'000'000};

}  // namespace

std::chrono::nanoseconds VirtualNow() noexcept asm("__wrap__ZN9ipplayout8platform12MonotonicNowEv");
void VirtualWait(const std::atomic<std::uint32_t>& word, std::uint32_t expected, std::chrono::nanoseconds deadline) asm(
    "__wrap__ZN9ipplayout8platform14FutexWaitUntilERKSt6atomicIjEjNSt6chrono8durationIlSt5ratio"
    "ILl1ELl1000000000EEEE");

std::chrono::nanoseconds VirtualNow() noexcept {
  constexpr std::int64_t kOneLook = 1000;
  return std::chrono::nanoseconds(now_ns.fetch_add(kOneLook) + kOneLook);
}

void VirtualWait(const std::atomic<std::uint32_t>& word, std::uint32_t expected,
                 std::chrono::nanoseconds deadline) {
  // A long sleep is a real one, until somebody ends it.
  constexpr std::int64_t kLongSleep = 10'000'000'000;
  std::int64_t now = now_ns.load();
  if (deadline.count() - now > kLongSleep) {
    ipplayout::platform::FutexWait(word, expected);
    return;
  }
  while (word.load() == expected && now < deadline.count() &&
         !now_ns.compare_exchange_weak(now, deadline.count())) {
  }
}
