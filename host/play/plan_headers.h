// SPDX-License-Identifier: MIT
// The header fields of a playout and their steps from copy to copy.
#pragma once

#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/library/path.h"
#include "host/play/play_options.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {

struct Headers {
  ProtocolHeadersSettings settings{};
  ProtocolHeadersIncrements increments{};
  std::vector<std::string> notes;  // what the user should know, a line each
};

// The headers of the first datagram, or which option cannot be followed.
Result<Headers> PlanHeaders(const PlayOptions& options, const Path& path);

}  // namespace ipplay
