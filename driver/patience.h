// SPDX-License-Identifier: MIT
// How long a sender waits for an adapter that has no room.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

#include "platform/deadline_waiter.h"

namespace ipplayout {

// Begins when the adapter is first found full and ends with each frame that it takes.
class Patience {
 public:
  // Waits end after `limit` without progress, or when `waiter` gives up. `waits`, if any, counts
  // how often the adapter was found full.
  Patience(std::chrono::nanoseconds limit, const platform::DeadlineWaiter& waiter,
           std::atomic<std::uint64_t>* waits = nullptr)
      : limit_(limit), waiter_(waiter), waits_(waits) {}

  // For an adapter that took nothing in all of the time before: it is used up until the adapter
  // takes something.
  void UseUp() { give_up_ = std::chrono::nanoseconds::zero(); }

  // The rest of the limit; zero or less when it is used up. Starts the limit if it does not run.
  std::chrono::nanoseconds Left();
  // Something was taken: the next wait starts afresh.
  void Progress() { give_up_.reset(); }
  // Sleeps for as long as an adapter needs for a few frames. False, at once, when nothing is left.
  bool Nap();

 private:
  const std::chrono::nanoseconds limit_;
  const platform::DeadlineWaiter& waiter_;
  std::atomic<std::uint64_t>* const waits_;
  std::optional<std::chrono::nanoseconds> give_up_;
};

}  // namespace ipplayout
