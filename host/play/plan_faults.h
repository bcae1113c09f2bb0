// SPDX-License-Identifier: MIT
// The deliberate errors of a playout: what of them is refused, and the settings they become.
#pragma once

#include <optional>

#include "host/base/result.h"
#include "host/play/play_options.h"
#include "ipplayout/playouts.h"

namespace ipplay {

std::optional<Failure> CheckFaults(const PlayOptions& options);

// What only a playout by schedule does: the option, or nothing.
std::optional<const char*> NeedsSchedule(const PlayOptions& options);

// So many of every range; chances are in FaultsFor.
ErrorInsertion ErrorsFor(const PlayOptions& options);
// The same of any stream.
ErrorInsertion ErrorsAt(const std::optional<ErrorSchedule>& lose,
                        const std::optional<DelaySchedule>& delay, bool random);
IpPlayoutFaults FaultsFor(const PlayOptions& options, IpPlayoutFaults defaults);

}  // namespace ipplay
