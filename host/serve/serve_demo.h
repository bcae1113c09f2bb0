// SPDX-License-Identifier: MIT
// The server of `ipplay demo --serve`: channels and a meter over a network of its own.
#pragma once

#include <string>

#include "host/base/result.h"

namespace ipplay::serve {

// Until a signal comes.
Result<int> ServeDemo(const std::string& listen, const std::string& token_file);

}  // namespace ipplay::serve
