// SPDX-License-Identifier: MIT
#include "driver/patience.h"

#include <time.h>

#include "platform/clock.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

// Long enough for an adapter to send a few frames, short beside the gaps that a user could see.
constexpr nanoseconds kNap = std::chrono::microseconds(20);

}  // namespace

nanoseconds Patience::Left() {
  const nanoseconds now = platform::MonotonicNow();
  if (!give_up_) {
    give_up_ = now + limit_;
    if (waits_ != nullptr) {
      waits_->fetch_add(1, std::memory_order_relaxed);
    }
  }
  return *give_up_ - now;
}

bool Patience::Nap() {
  if (Left() <= nanoseconds::zero() || waiter_.ShouldGiveUp()) {
    return false;
  }
  const timespec time{0, static_cast<long>(kNap.count())};
  ::nanosleep(&time, nullptr);
  return true;
}

}  // namespace ipplayout
