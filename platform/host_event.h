// SPDX-License-Identifier: MIT
// Events that a host waits on in its own loop: a pointer-sized handle that holds an eventfd(2)
// descriptor. Signalled means readable, until somebody reads it.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "platform/descriptor.h"

namespace ipplayout::platform {

using EventHandle = std::intptr_t;
inline constexpr EventHandle kNullEvent = 0;
inline constexpr EventHandle kInvalidEvent = -1;

// Makes the event readable. Null and invalid handles are skipped, a closed one is ignored, and a
// full one is readable already: the call never blocks on a descriptor of the host's.
void SignalHostEvent(EventHandle event);

// A descriptor of the library's own, closed by its destructor.
class OwnedHostEvent {
 public:
  // Nothing when there is no descriptor left.
  static std::optional<OwnedHostEvent> Create();
  // A host's event under a number of the library's own: the host may close its descriptor, and the
  // number may come to mean a file. Nothing when `event` is not open or there is no descriptor
  // left.
  static std::optional<OwnedHostEvent> Duplicate(EventHandle event);

  EventHandle Handle() const { return descriptor_.Get(); }
  // Makes it unreadable again.
  void Clear();
  // Whether `event` is the same event. False where the kernel does not say.
  bool IsSame(EventHandle event) const;
  // Some order of all events, in which the same one can be looked up. False as above.
  bool IsBefore(EventHandle event) const;

 private:
  long Compare(EventHandle event) const;
  explicit OwnedHostEvent(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}

  Descriptor descriptor_;
};

// Sleeps until one of the two is signalled, reading neither. Null and invalid handles never are.
void WaitForEither(EventHandle first, EventHandle second);

}  // namespace ipplayout::platform
