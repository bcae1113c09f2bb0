// SPDX-License-Identifier: MIT
// The kernel's wait-on-a-word service (futex(2)), which cannot lose a wake-up: the kernel compares
// the word again under its own lock before it puts the caller to sleep.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace ipplayout::platform {

// Sleeps while `word` holds `expected`. May return early; the caller re-checks its condition.
void FutexWait(const std::atomic<std::uint32_t>& word, std::uint32_t expected);

// The same, but not past `deadline` on the monotonic clock.
void FutexWaitUntil(const std::atomic<std::uint32_t>& word, std::uint32_t expected,
                    std::chrono::nanoseconds deadline);

void FutexWakeAll(const std::atomic<std::uint32_t>& word);

}  // namespace ipplayout::platform
