// SPDX-License-Identifier: MIT
#include "host/base/wall_clock.h"

#include <fmt/chrono.h>

namespace ipplay {

std::chrono::nanoseconds WallClockNow() {
  return std::chrono::system_clock::now().time_since_epoch();
}

std::string UtcText(std::int64_t time_ns) {
  constexpr std::int64_t kSecondNs = 1'000'000'000;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:09}Z",
                     fmt::gmtime(static_cast<std::time_t>(time_ns / kSecondNs)),
                     time_ns % kSecondNs);
}

}  // namespace ipplay
