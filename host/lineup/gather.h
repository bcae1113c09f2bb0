// SPDX-License-Identifier: MIT
// One result of the parts of a lineup that ran on several machines.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/lineup/gathered.h"

namespace ipplay {

struct GatherOptions {
  std::string folder;
  std::string lineup;  // the file with all channels; empty: not known
  std::string report;  // the page; empty: none
  GatherLimits limits;
  bool json = false;
};

// The exit status is 0 only if every part is there and has ended without a failure, within the
// limits; 4 where nothing but a limit is not met.
Result<int> Gather(const GatherOptions& options);

}  // namespace ipplay
