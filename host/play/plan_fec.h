// SPDX-License-Identifier: MIT
// Forward error correction of a playout (SMPTE ST 2022-1).
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/library/adapters.h"
#include "host/play/plan_sizes.h"
#include "host/play/play_options.h"
#include "ipplayout/playouts.h"

namespace ipplay {

// What is ordered and cannot be.
std::optional<Failure> CheckFec(const PlayOptions& options, const Sizes& sizes,
                                const Adapter& adapter);

// Leaves `schedule` as it is where no FEC is ordered.
void ApplyFec(const PlayOptions& options, IpPlayoutSettings& schedule);

// The matrix and where its FEC goes; empty without FEC.
std::string FecText(const PlayOptions& options);

}  // namespace ipplay
