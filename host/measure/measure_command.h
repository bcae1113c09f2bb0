// The commands of ipplay that measure. Each adds itself to the application; when it was chosen and
// has run, `exit_status` holds its result.
#pragma once

#include <CLI/App.hpp>

namespace ipplay {

void RegisterMeasure(CLI::App& app, int& exit_status);
void RegisterDemo(CLI::App& app, int& exit_status);

}  // namespace ipplay
