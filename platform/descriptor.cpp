// SPDX-License-Identifier: MIT
#include "platform/descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/clock.h"

namespace ipplayout::platform {
namespace {

constexpr int kFirstAbove = STDERR_FILENO + 1;

}  // namespace

Descriptor::~Descriptor() {
  if (IsOpen()) {
    ::close(value_);
  }
}

Descriptor AboveStandard(Descriptor descriptor) {
  if (!descriptor.IsOpen() || descriptor.Get() >= kFirstAbove) {
    return descriptor;
  }
  return Descriptor(::fcntl(descriptor.Get(), F_DUPFD_CLOEXEC, kFirstAbove));
}

StandardNumbersTaken::StandardNumbersTaken() {
  for (Descriptor& taken : taken_) {
    taken = Descriptor(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (taken.Get() >= kFirstAbove) {
      taken = Descriptor();
      return;
    }
  }
}

bool WaitUntilReadable(int descriptor, std::chrono::nanoseconds deadline) {
  for (;;) {
    const auto left = std::max(deadline - MonotonicNow(), std::chrono::nanoseconds::zero());
    const timespec limit = ToTimespec(left);
    pollfd target{descriptor, POLLIN, 0};
    const int ready = ::ppoll(&target, 1, &limit, nullptr);
    if (ready >= 0 || errno != EINTR) {
      return ready == 1;
    }
  }
}

}  // namespace ipplayout::platform
