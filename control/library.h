// SPDX-License-Identifier: MIT
// The library's one object: its long-lived parts, its playout, and the many that a host opens.
#pragma once

#include "control/parts.h"
#include "control/playout.h"
#include "control/playouts.h"

namespace ipplayout {

// A playout that still runs when the library is unloaded is stopped before its parts go.
struct Library {
  // `driver` and `sinks` outlive the library.
  explicit Library(CaptureDriver& driver, SinkMaker& sinks = PlatformSinks())
      : parts(driver), playout(parts), playouts(sinks) {}

  Parts parts;
  Playout playout;
  Playouts playouts;
};

Library& TheLibrary();

}  // namespace ipplayout
