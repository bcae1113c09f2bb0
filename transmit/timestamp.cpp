// SPDX-License-Identifier: MIT
#include "transmit/timestamp.h"

#include <algorithm>

#include "platform/clock.h"

namespace ipplayout {

Timestamp::Timestamp(std::chrono::nanoseconds since_origin)
    : seconds_(std::chrono::duration<double>(since_origin).count()) {}

void Timestamp::Mark() {
  *this = Timestamp(platform::MonotonicNow());
}

double Timestamp::Elapsed(const Timestamp& earlier) const {
  return std::max(seconds_ - earlier.seconds_, 0.0);
}

}  // namespace ipplayout
