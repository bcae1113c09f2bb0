// SPDX-License-Identifier: MIT
// `ipplay serve`. Adds its command to the application; once it was chosen and has run, `outcome`
// holds its exit status, or the failure, not yet printed.
#pragma once

#include "host/base/result.h"

namespace CLI {
class App;
}

namespace ipplay {

void RegisterServe(CLI::App& app, Result<int>& outcome);

}  // namespace ipplay
