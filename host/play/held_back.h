// SPDX-License-Identifier: MIT
// Datagrams that were to leave late, when the playout ended before they were due.
#pragma once

#include <cstdint>
#include <optional>

#include "ipplayout/ipplayout.h"

namespace ipplay {

// How many of the delayed datagrams never left. Nothing where the settings do not tell: after
// delays or losses at random places, or `on_request` by a key or --at.
std::optional<std::uint64_t> HeldBackAtEnd(const ErrorInsertion& errors,
                                           const PlayoutStatistics& counters, bool on_request);

}  // namespace ipplay
