// SPDX-License-Identifier: MIT
// What a reader has to do in time although nothing comes to be read.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace ipplay {

struct IdleWork {
  // When there is something to do, on CLOCK_MONOTONIC; nothing for never. Null for no work at all.
  std::function<std::optional<std::chrono::nanoseconds>()> due;
  // Does it; afterwards it is not due any more.
  std::function<void()> run;

  std::optional<std::chrono::nanoseconds> Due() const { return due ? due() : std::nullopt; }
};

}  // namespace ipplay
