// SPDX-License-Identifier: MIT
// The library's one pseudo-random generator. It is process-wide and its own: a host's use of
// rand(3) neither disturbs it nor is disturbed by it.
#pragma once

#include <cstdint>

namespace ipplayout::platform {

inline constexpr std::uint32_t kRandomMax = 32767;

void SeedRandom(std::uint64_t seed);

// The next number, 0 to kRandomMax. Called by one thread at a time.
std::uint32_t NextRandom();

}  // namespace ipplayout::platform
