// SPDX-License-Identifier: MIT
// How the frames of a playout leave: out of an adapter, through a UDP socket, or into a capture
// file.
#pragma once

#include <optional>
#include <vector>

#include "host/base/result.h"
#include "host/library/path.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"

namespace ipplay {

// Decides for `plan`, with notes where it is not the adapter that is the usual way: a socket for
// targets on this machine, which see nothing of what an adapter sends, and where the right to send
// frames is missing. A failure where the order allows no way.
std::optional<Failure> ChooseWay(const PlayOptions& options, const Path& path,
                                 const std::vector<Adapter>& adapters, PlayPlan& plan);

// The path of frames that are written to a file and need no adapter: by that of --device or of the
// route where there is one, else with addresses for documentation (RFC 5737, RFC 3849).
Path PathIntoFile(const PlayOptions& options, const std::vector<Adapter>& adapters);

}  // namespace ipplay
