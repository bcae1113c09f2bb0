// SPDX-License-Identifier: MIT
#include "platform/random.h"

#include <atomic>

#include "platform/clock.h"

namespace ipplayout::platform {
namespace {

// SplitMix64 (Steele, Lea, Flood 2014): neighbouring seeds give unrelated sequences, which matters
// here because seeds are consecutive millisecond counts.
std::uint64_t InitialSeed() noexcept {
  return static_cast<std::uint64_t>(MonotonicNow().count());
}

std::atomic<std::uint64_t> state{InitialSeed()};

}  // namespace

void SeedRandom(std::uint64_t seed) {
  state.store(seed, std::memory_order_relaxed);
}

std::uint32_t NextRandom() {
  constexpr std::uint64_t kStep = 0x9E3779B97F4A7C15;
  std::uint64_t z = state.fetch_add(kStep, std::memory_order_relaxed) + kStep;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  z ^= z >> 31;
  return static_cast<std::uint32_t>(z >> 49);
}

}  // namespace ipplayout::platform
