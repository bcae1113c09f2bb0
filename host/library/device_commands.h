// SPDX-License-Identifier: MIT
// Each adds its command to the application; once the command was chosen and has run, `outcome`
// holds its exit status, or the failure, not yet printed.
#pragma once

#include <vector>

#include "host/base/json.h"
#include "host/base/result.h"
#include "host/library/adapters.h"

namespace CLI {
class App;
}

namespace ipplay {

void RegisterDevices(CLI::App& app, Result<int>& outcome);
void RegisterResolve(CLI::App& app, Result<int>& outcome);

// As `ipplay devices --json` prints it.
Json DevicesJson(const std::vector<Adapter>& adapters);

}  // namespace ipplay
