// SPDX-License-Identifier: MIT
#include "platform/random.h"

#include <sys/random.h>

#include "platform/clock.h"

namespace ipplayout::platform {
namespace {

std::uint64_t TimeAsSeed() noexcept {
  return static_cast<std::uint64_t>(MonotonicNow().count());
}

Random process_random{TimeAsSeed()};

}  // namespace

std::uint64_t Random::Next64() {
  constexpr std::uint64_t kStep = 0x9E3779B97F4A7C15;
  std::uint64_t z = state_.fetch_add(kStep, std::memory_order_relaxed) + kStep;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

Random& ProcessRandom() {
  return process_random;
}

std::uint64_t DrawSeed() {
  std::uint64_t seed = 0;
  if (::getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed) {
    seed = TimeAsSeed();  // early at boot
  }
  return seed;
}

}  // namespace ipplayout::platform
