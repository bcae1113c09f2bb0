// SPDX-License-Identifier: MIT
// Each adds its command to the application; once the command was chosen and has run, `outcome`
// holds its exit status, or the failure, not yet printed.
#pragma once

#include <functional>
#include <string>

#include "host/base/result.h"

namespace CLI {
class App;
}

namespace ipplay {

// Serves the page of a demonstration at an address and port, to who has the token of the file where
// one is named. It comes from serve/, which stands behind this folder in the order of includes.
using DemoServer =
    std::function<Result<int>(const std::string& listen, const std::string& token_file)>;

void RegisterDemo(CLI::App& app, Result<int>& outcome, const DemoServer& serve);

}  // namespace ipplay
