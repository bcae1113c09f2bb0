// SPDX-License-Identifier: MIT
// Bursts and jitter as the settings ask for them.
#pragma once

#include "ipplayout/ipplayout.h"
#include "transmit/parametric_manager.h"

namespace ipplayout {

void LoadParametricSettings(CZebParametricManager& manager, const ParametricSettings& settings);
// Jitter alone, in mid-run too.
void LoadJitter(CZebParametricManager& manager, const ParametricSettings& settings);

}  // namespace ipplayout
