// SPDX-License-Identifier: MIT
#include "host/base/event.h"

#include <sys/eventfd.h>

#include <cstdint>

namespace ipplay {

Event::Event() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void Event::Set() const {
  const std::uint64_t one = 1;
  if (::write(fd_.Get(), &one, sizeof one) < 0) {
    // The counter is full, so the event is set already.
  }
}

}  // namespace ipplay
