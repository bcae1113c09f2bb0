// SPDX-License-Identifier: MIT
#include "host/play/start_failure.h"

#include <fmt/format.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "host/base/file_descriptor.h"
#include "host/base/units.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

// 0 when as many sockets as a start has open at once can be had.
int SocketError() {
  std::array<FileDescriptor, 3> sockets;
  for (FileDescriptor& socket : sockets) {
    socket = FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) {
      return errno;
    }
  }
  return 0;
}

void* DoNothing(void* /*unused*/) {
  return nullptr;
}

bool CanStartThread() {
  pthread_t thread{};
  if (::pthread_create(&thread, nullptr, DoNothing, nullptr) != 0) {
    return false;
  }
  ::pthread_join(thread, nullptr);
  return true;
}

}  // namespace

std::string WhyNotStarted(std::uint32_t device_index) {
  if (const int error = SocketError()) {
    return fmt::format("a socket cannot be opened: {}", std::strerror(error));
  }
  int count = 0;
  const DeviceListEntry* devices = GetListOfDevices(&count);
  if (devices == nullptr || device_index >= static_cast<std::uint32_t>(count)) {
    return "the adapter is not there";
  }
  const std::string name = std::string(devices[device_index].Name).substr(std::strlen("rpcap://"));
  if (::if_nametoindex(name.c_str()) == 0) {
    return fmt::format("the adapter {} is gone", name);
  }
  if (!CanStartThread()) {
    return "a thread cannot be started; raise the limit of processes (ulimit -u) or of memory (-v)";
  }
  rlimit memory{};
  if (::getrlimit(RLIMIT_AS, &memory) == 0 && memory.rlim_cur != RLIM_INFINITY) {
    return fmt::format(
        "the library refuses and gives no reason; memory is limited to {} (ulimit -v)",
        FormatBytes(memory.rlim_cur));
  }
  return "the library refuses and gives no reason";
}

}  // namespace ipplay
