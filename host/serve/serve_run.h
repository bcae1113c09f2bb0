// SPDX-License-Identifier: MIT
// A server from its options to its end: what it opens, what rights it keeps, and its seconds.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"

namespace ipplay::serve {

struct ServeOptions {
  std::string listen;
  std::vector<std::string> media;
  std::string token_file;
  std::vector<std::string> hosts;

  // Of a demonstration: called once the address is open, before folders and adapters are looked at
  // and while there is one thread.
  std::function<std::optional<Failure>()> enter;
  std::string first_lineup;  // that is played from the beginning (TOML); empty for none
  std::string first_meter;   // the adapter that is measured from the beginning; empty for none
};

// Until a signal comes.
Result<int> RunServer(const ServeOptions& options);

}  // namespace ipplay::serve
