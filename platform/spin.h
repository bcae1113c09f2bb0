// SPDX-License-Identifier: MIT
// One turn of a busy wait.
#pragma once

namespace ipplayout::platform {

// Tells the processor that the caller spins, so that it yields its resources meanwhile.
inline void SpinOnce() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  __asm__ volatile("yield");
#endif
}

}  // namespace ipplayout::platform
