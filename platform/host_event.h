// SPDX-License-Identifier: MIT
// Events that a host waits on in its own loop: a pointer-sized handle that holds an eventfd(2)
// descriptor. Signalled means readable, until somebody reads it.
#pragma once

#include <cstdint>
#include <optional>

namespace ipplayout::platform {

using EventHandle = std::intptr_t;
inline constexpr EventHandle kNullEvent = 0;
inline constexpr EventHandle kInvalidEvent = -1;

// Makes the event readable. Null and invalid handles are skipped, a closed one is ignored, and a
// full one is readable already: the call never blocks on a descriptor of the host's.
void SignalHostEvent(EventHandle event);

// An event of the library's own, closed by its destructor.
class OwnedHostEvent {
 public:
  static std::optional<OwnedHostEvent> Create();
  OwnedHostEvent(OwnedHostEvent&& other) noexcept;
  OwnedHostEvent& operator=(OwnedHostEvent&& other) noexcept;
  ~OwnedHostEvent();

  EventHandle Handle() const { return handle_; }

 private:
  explicit OwnedHostEvent(EventHandle handle) : handle_(handle) {}

  EventHandle handle_;
};

// Sleeps until one of the two is signalled, reading neither. Null and invalid handles never are.
void WaitForEither(EventHandle first, EventHandle second);

}  // namespace ipplayout::platform
