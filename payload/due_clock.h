// SPDX-License-Identifier: MIT
// RTP time stamps that follow the time at which a datagram is to leave.
#pragma once

#include <chrono>
#include <cstdint>

#include "protocol/sw_clock.h"

namespace ipplayout {

// 90 kHz (RFC 3551 section 4.5), exact: cut down to whole ticks, never added up. Belongs to the
// builder.
class DueClock final : public CSwClock {
 public:
  explicit DueClock(std::uint32_t first_timestamp) : first_(first_timestamp) {}

  // Of the frames to come; the first time stamp is that of time 0.
  void Set(std::chrono::nanoseconds due) { due_ = due; }

  bool NextTimestamp(std::uint32_t* out) override {
    constexpr std::int64_t kTicks = 9;
    constexpr std::int64_t kNanoseconds = 100'000;
    // In two parts, so that centuries do not overflow.
    std::int64_t whole = due_.count() / kNanoseconds;
    std::int64_t rest = due_.count() % kNanoseconds;
    if (rest < 0) {  // before time 0: cut down too
      --whole;
      rest += kNanoseconds;
    }
    *out = first_ + static_cast<std::uint32_t>(whole * kTicks + rest * kTicks / kNanoseconds);
    return true;
  }

 private:
  std::uint32_t first_;
  std::chrono::nanoseconds due_{0};
};

}  // namespace ipplayout
