// SPDX-License-Identifier: MIT
#include "platform/host_event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace ipplayout::platform {
namespace {

int Descriptor(EventHandle event) {
  return event == kNullEvent ? -1 : static_cast<int>(event);
}

}  // namespace

void SignalHostEvent(EventHandle event) {
  pollfd target{Descriptor(event), POLLOUT, 0};
  if (::poll(&target, 1, 0) != 1 || (target.revents & POLLOUT) == 0) {
    return;
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(target.fd, &one, sizeof one);
}

std::optional<OwnedHostEvent> OwnedHostEvent::Create() {
  int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (descriptor == kNullEvent) {
    // A host that has closed its standard input gets descriptor 0, which hosts read as null.
    descriptor = ::dup(kNullEvent);
    ::close(kNullEvent);
  }
  if (descriptor < 0) {
    return std::nullopt;
  }
  return OwnedHostEvent(descriptor);
}

OwnedHostEvent::OwnedHostEvent(OwnedHostEvent&& other) noexcept
    : handle_(std::exchange(other.handle_, kInvalidEvent)) {}

OwnedHostEvent& OwnedHostEvent::operator=(OwnedHostEvent&& other) noexcept {
  std::swap(handle_, other.handle_);
  return *this;
}

OwnedHostEvent::~OwnedHostEvent() {
  if (handle_ != kInvalidEvent) {
    ::close(Descriptor(handle_));
  }
}

void WaitForEither(EventHandle first, EventHandle second) {
  pollfd events[] = {{Descriptor(first), POLLIN, 0}, {Descriptor(second), POLLIN, 0}};
  // A closed descriptor (POLLNVAL) is dropped from the set, since it would end every poll at once.
  for (;;) {
    const int ready = ::poll(events, 2, -1);
    for (pollfd& event : events) {
      if (ready > 0 && (event.revents & POLLIN) != 0) {
        return;
      }
      if (ready > 0 && event.revents != 0) {
        event.fd = -1;
      }
    }
  }
}

}  // namespace ipplayout::platform
