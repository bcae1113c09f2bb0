// SPDX-License-Identifier: MIT
#include "host/play/start_failure.h"

#include <fmt/format.h>

#include <cstring>

#include "host/base/link.h"
#include "host/base/system_limits.h"
#include "host/base/units.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {

std::string WhyNotStarted(std::uint32_t device_index) {
  constexpr std::size_t kSocketsOfAStart = 3;
  if (const int error = ErrorOfSockets(kSocketsOfAStart)) {
    return fmt::format("a socket cannot be opened: {}", std::strerror(error));
  }
  int count = 0;
  const DeviceListEntry* devices = GetListOfDevices(&count);
  if (devices == nullptr || device_index >= static_cast<std::uint32_t>(count)) {
    return "the adapter is not there";
  }
  const std::string name = std::string(devices[device_index].Name).substr(std::strlen("rpcap://"));
  if (!QueryLink(name).up) {
    return fmt::format("the adapter {} is gone", name);
  }
  if (!CanStartThread()) {
    return "a thread cannot be started; raise the limit of processes (ulimit -u) or of memory (-v)";
  }
  if (const auto limit = MemoryLimit()) {
    return fmt::format(
        "the library refuses and gives no reason; memory is limited to {} (ulimit -v)",
        FormatBytes(*limit));
  }
  return "the library refuses and gives no reason";
}

}  // namespace ipplay
