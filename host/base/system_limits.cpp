// SPDX-License-Identifier: MIT
#include "host/base/system_limits.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>
#include <vector>

#include "host/base/file_descriptor.h"

namespace ipplay {
namespace {

void* DoNothing(void* /*unused*/) {
  return nullptr;
}

}  // namespace

int ErrorOfSockets(std::size_t count) {
  std::vector<FileDescriptor> sockets;
  while (sockets.size() < count) {
    sockets.emplace_back(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sockets.back().IsOpen()) {
      return errno;
    }
  }
  return 0;
}

bool CanStartThread() {
  pthread_t thread{};
  if (::pthread_create(&thread, nullptr, DoNothing, nullptr) != 0) {
    return false;
  }
  ::pthread_join(thread, nullptr);
  return true;
}

std::optional<std::uint64_t> MemoryLimit() {
  rlimit memory{};
  if (::getrlimit(RLIMIT_AS, &memory) != 0 || memory.rlim_cur == RLIM_INFINITY) {
    return std::nullopt;
  }
  return memory.rlim_cur;
}

}  // namespace ipplay
