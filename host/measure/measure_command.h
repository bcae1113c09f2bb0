// The commands of ipplay that measure. Each adds itself to the application; when it was chosen and
// has run, `outcome` holds its exit status, or why it failed.
#pragma once

#include <CLI/App.hpp>

#include "host/result.h"

namespace ipplay {

void RegisterMeasure(CLI::App& app, Result<int>& outcome);
void RegisterDemo(CLI::App& app, Result<int>& outcome);

}  // namespace ipplay
