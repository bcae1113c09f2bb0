// SPDX-License-Identifier: MIT
// Each adds its command to the application; once the command was chosen and has run, `outcome`
// holds its exit status, or the failure, not yet printed.
#pragma once

#include "host/base/result.h"

namespace CLI {
class App;
}

namespace ipplay {

void RegisterLineup(CLI::App& app, Result<int>& outcome);
void RegisterGather(CLI::App& app, Result<int>& outcome);

}  // namespace ipplay
