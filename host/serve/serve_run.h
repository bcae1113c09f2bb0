// SPDX-License-Identifier: MIT
// A server from its options to its end: what it opens, what rights it keeps, and its seconds.
#pragma once

#include <string>
#include <vector>

#include "host/base/result.h"

namespace ipplay::serve {

struct ServeOptions {
  std::string listen;
  std::vector<std::string> media;
  std::string token_file;
  std::vector<std::string> hosts;
};

// Until a signal comes.
Result<int> RunServer(const ServeOptions& options);

}  // namespace ipplay::serve
