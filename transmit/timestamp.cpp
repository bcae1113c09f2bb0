// SPDX-License-Identifier: MIT
#include "transmit/timestamp.h"

#include <algorithm>

#include "platform/clock.h"

namespace ipplayout {

Timestamp::Timestamp(std::chrono::nanoseconds since_origin) : seconds_(since_origin) {}

void Timestamp::Mark() {
  *this = Timestamp(platform::MonotonicNow());
}

Seconds Timestamp::Elapsed(const Timestamp& earlier) const {
  return std::max(seconds_ - earlier.seconds_, Seconds(0));
}

}  // namespace ipplayout
