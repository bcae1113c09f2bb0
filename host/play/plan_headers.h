// SPDX-License-Identifier: MIT
// The header fields of a playout and their steps from copy to copy.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/library/path.h"
#include "host/play/play_options.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {

// Fills ProtocolHeadersSettings and ProtocolHeadersIncrements of `params`, or says which option
// cannot be followed. What is worth knowing is appended to `notes`.
std::optional<Failure> PlanHeaders(const PlayOptions& options, const Path& path,
                                   IPPlayParams& params, std::vector<std::string>& notes);

// Bytes of all headers of a frame.
std::uint32_t HeaderBytes(const IPPlayParams& params);

}  // namespace ipplay
