// SPDX-License-Identifier: MIT
// The library's one object: its long-lived parts and its playout.
#pragma once

#include "control/parts.h"
#include "control/playout.h"

namespace ipplayout {

// A playout that still runs when the library is unloaded is stopped before its parts go.
struct Library {
  // `driver` outlives the library.
  explicit Library(CaptureDriver& driver) : parts(driver), playout(parts) {}

  Parts parts;
  Playout playout;
};

Library& TheLibrary();

}  // namespace ipplayout
