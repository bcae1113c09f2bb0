// SPDX-License-Identifier: MIT
// poll(2) that signals do not end, up to a point in time.
#pragma once

#include <poll.h>

#include <chrono>
#include <optional>
#include <span>

namespace ipplay {

// Waits for one of them until `end`, on CLOCK_MONOTONIC, or without end. As poll() returns it: how
// many are ready, 0 when the time has come.
int PollUntil(std::span<pollfd> waits, std::optional<std::chrono::nanoseconds> end);

}  // namespace ipplay
