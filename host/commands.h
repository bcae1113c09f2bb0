// The commands of ipplay. Each adds itself to the application; when it was chosen and has run,
// `outcome` holds its exit status, or why it failed, which nobody has been told yet.
#pragma once

#include <CLI/App.hpp>

#include "host/result.h"

namespace ipplay {

void RegisterDevices(CLI::App& app, Result<int>& outcome);
void RegisterResolve(CLI::App& app, Result<int>& outcome);
void RegisterPlay(CLI::App& app, Result<int>& outcome);

}  // namespace ipplay
