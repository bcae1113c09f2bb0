// SPDX-License-Identifier: MIT
// The rights that a playout needs at its start, and no longer.
#pragma once

#include "host/base/capabilities.h"

namespace ipplay {

// The library opens adapters and sets its threads' scheduling class. More outputs may follow.
inline void KeepRightsToStart() {
  KeepCapabilities({kCapNetRaw, kCapSysNice});
}

// Once all outputs have started: nothing needs rights later.
inline void DropRightsToStart() {
  KeepCapabilities({});
}

}  // namespace ipplay
