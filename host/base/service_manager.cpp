// SPDX-License-Identifier: MIT
#include "host/base/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string>

#include "host/base/file_descriptor.h"
#include "host/base/numbers.h"

namespace ipplay {

void NotifyServiceManager(std::string_view state) {
  const char* const path = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string_view name = path == nullptr ? "" : path;
  if (name.empty() || name.size() >= sizeof address.sun_path) {
    return;
  }
  std::ranges::copy(name, address.sun_path);
  if (name.front() == '@') {
    address.sun_path[0] = '\0';  // of the abstract namespace
  }
  const FileDescriptor fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast)
  const auto* const to = reinterpret_cast<const sockaddr*>(&address);
  [[maybe_unused]] const auto sent =
      ::sendto(fd.Get(), state.data(), state.size(), MSG_NOSIGNAL, to, length);
}

std::optional<std::chrono::microseconds> WatchdogInterval() {
  const char* const text = std::getenv("WATCHDOG_USEC");
  const auto time = ParseNumber(text == nullptr ? "" : text, 2, INT64_MAX);
  const char* const process = std::getenv("WATCHDOG_PID");
  if (!time || (process != nullptr && std::to_string(::getpid()) != process)) {
    return std::nullopt;
  }
  return std::chrono::microseconds(*time / 2);
}

}  // namespace ipplay
