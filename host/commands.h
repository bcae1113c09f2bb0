// The commands of ipplay. Each adds itself to the application; when it was chosen and has run,
// `exit_status` holds its result.
#pragma once

#include <CLI/App.hpp>

#include "host/result.h"

namespace ipplay {

void RegisterDevices(CLI::App& app, int& exit_status);
void RegisterResolve(CLI::App& app, int& exit_status);
void RegisterPlay(CLI::App& app, int& exit_status);

// Prints the message of a failure and returns its exit status.
int Report(const Failure& failure);

}  // namespace ipplay
