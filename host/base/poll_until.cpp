// SPDX-License-Identifier: MIT
#include "host/base/poll_until.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace ipplay {

int PollUntil(std::span<pollfd> waits, std::optional<std::chrono::nanoseconds> end) {
  constexpr std::int64_t kSecondNs = 1'000'000'000;
  int count = 0;
  do {
    timespec left{};
    if (end) {
      const auto now = std::chrono::steady_clock::now().time_since_epoch();
      const std::int64_t left_ns = std::max<std::int64_t>(0, (*end - now).count());
      left = {static_cast<time_t>(left_ns / kSecondNs), static_cast<long>(left_ns % kSecondNs)};
    }
    count = ::ppoll(waits.data(), waits.size(), end ? &left : nullptr, nullptr);
  } while (count < 0 && errno == EINTR);
  return count;
}

}  // namespace ipplay
