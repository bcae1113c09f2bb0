// SPDX-License-Identifier: MIT
// The rights that a playout needs at its start, and no longer.
#pragma once

#include "host/base/capabilities.h"

namespace ipplay {

// The library opens the adapter and sets its threads' scheduling class; nothing needs rights later.
template <typename Start>
auto WithRightsToStart(Start start) {
  KeepCapabilities({kCapNetRaw, kCapSysNice});
  auto result = start();
  KeepCapabilities({});
  return result;
}

}  // namespace ipplay
