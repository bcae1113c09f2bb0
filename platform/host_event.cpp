// SPDX-License-Identifier: MIT
#include "platform/host_event.h"

#include <fcntl.h>
#include <linux/kcmp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ipplayout::platform {
namespace {

int Number(EventHandle event) {
  return event == kNullEvent ? -1 : static_cast<int>(event);
}

}  // namespace

void SignalHostEvent(EventHandle event) {
  pollfd target{Number(event), POLLOUT, 0};
  if (::poll(&target, 1, 0) != 1 || (target.revents & POLLOUT) == 0) {
    return;
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(target.fd, &one, sizeof one);
}

std::optional<OwnedHostEvent> OwnedHostEvent::Create() {
  // Hosts read 0 as null.
  Descriptor event = AboveStandard(Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
  if (!event.IsOpen()) {
    return std::nullopt;
  }
  return OwnedHostEvent(std::move(event));
}

std::optional<OwnedHostEvent> OwnedHostEvent::Duplicate(EventHandle event) {
  Descriptor duplicate(::fcntl(Number(event), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!duplicate.IsOpen()) {
    return std::nullopt;
  }
  return OwnedHostEvent(std::move(duplicate));
}

void OwnedHostEvent::Clear() {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto read = ::read(descriptor_.Get(), &count, sizeof count);
}

bool OwnedHostEvent::IsSame(EventHandle event) const {
  return Compare(event) == 0;
}

bool OwnedHostEvent::IsBefore(EventHandle event) const {
  return Compare(event) == 1;
}

// kcmp(2): 0 for the same, 1 for before, 2 for behind, else a failure.
long OwnedHostEvent::Compare(EventHandle event) const {
  const long process = ::getpid();
  return ::syscall(SYS_kcmp, process, process, static_cast<long>(KCMP_FILE),
                   static_cast<long>(descriptor_.Get()), static_cast<long>(Number(event)));
}

void WaitForEither(EventHandle first, EventHandle second) {
  pollfd events[] = {{Number(first), POLLIN, 0}, {Number(second), POLLIN, 0}};
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
