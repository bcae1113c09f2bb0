// SPDX-License-Identifier: MIT
#include "host/base/machine.h"

#include <sys/timex.h>
#include <unistd.h>

#include <array>
#include <climits>

namespace ipplay {

std::string NameOfMachine() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  ::gethostname(name.data(), name.size() - 1);
  return name.data();
}

std::optional<std::int64_t> LargestClockErrorNs() {
  constexpr std::int64_t kNsPerMicrosecond = 1000;
  timex clock{};
  const int state = ::adjtimex(&clock);
  if (state < 0 || state == TIME_ERROR || (clock.status & STA_UNSYNC) != 0) {
    return std::nullopt;
  }
  return clock.maxerror * kNsPerMicrosecond;
}

}  // namespace ipplay
