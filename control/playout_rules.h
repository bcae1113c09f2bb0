// SPDX-License-Identifier: MIT
// Which settings a playout of the many may have, and how they become the library's own.
#pragma once

#include "control/failure.h"
#include "control/settings_store.h"
#include "ipplayout/playouts.h"
#include "platform/random.h"

namespace ipplayout {

// Names the field, its value and what is allowed.
Failure CheckSettings(const IpPlayoutSettings& settings);

IpPlayoutSettings DefaultSettings();

// As a start reads them. What is random is drawn from `random`.
PlayoutSettings ToPlayoutSettings(const IpPlayoutSettings& settings, platform::Random& random);

}  // namespace ipplayout
