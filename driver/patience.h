// SPDX-License-Identifier: MIT
// How long a sender waits for an adapter that has no room.
#pragma once

#include <chrono>
#include <optional>

#include "platform/deadline_waiter.h"

namespace ipplayout {

// Begins when the adapter is first found full and ends with each frame that it takes.
class Patience {
 public:
  // Waits end after `limit` without progress, or when `waiter` gives up.
  Patience(std::chrono::nanoseconds limit, const platform::DeadlineWaiter& waiter)
      : limit_(limit), waiter_(waiter) {}

  // What is left of the limit; zero or less when it is used up. Starts it where it does not run.
  std::chrono::nanoseconds Left();
  // Something was taken: the next wait starts afresh.
  void Progress() { give_up_.reset(); }
  // Sleeps for as long as an adapter needs for a few frames. False, at once, when nothing is left.
  bool Nap();

 private:
  const std::chrono::nanoseconds limit_;
  const platform::DeadlineWaiter& waiter_;
  std::optional<std::chrono::nanoseconds> give_up_;
};

}  // namespace ipplayout
