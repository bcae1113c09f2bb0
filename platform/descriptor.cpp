// SPDX-License-Identifier: MIT
#include "platform/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

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

}  // namespace ipplayout::platform
