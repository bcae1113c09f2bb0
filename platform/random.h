// SPDX-License-Identifier: MIT
// Pseudo-random generators of the library's own: a host's use of rand(3) neither disturbs them nor
// is disturbed by them.
#pragma once

#include <atomic>
#include <cstdint>

namespace ipplayout::platform {

inline constexpr std::uint32_t kRandomMax = 32767;

// SplitMix64 (Steele, Lea, Flood 2014): neighbouring seeds give unrelated sequences. One thread
// draws at a time; any may seed.
class Random {
 public:
  explicit Random(std::uint64_t seed) noexcept : state_(seed) {}
  Random(const Random&) = delete;
  Random& operator=(const Random&) = delete;

  void Seed(std::uint64_t seed) { state_.store(seed, std::memory_order_relaxed); }
  // The next number, 0 to kRandomMax.
  std::uint32_t Next() { return static_cast<std::uint32_t>(Next64() >> 49); }
  // The next number, of the whole range.
  std::uint64_t Next64();

 private:
  std::atomic<std::uint64_t> state_;
};

// The one of the process-wide playout, seeded with the millisecond count at each start.
Random& ProcessRandom();

// A seed that the system draws.
std::uint64_t DrawSeed();

}  // namespace ipplayout::platform
