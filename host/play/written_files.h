// SPDX-License-Identifier: MIT
// The files that a playout writes, beside those that it reads.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/play/play_options.h"

namespace ipplay {

// Whether the file at `path` is an input, by whatever name.
bool IsInput(const PlayOptions& options, const std::string& path);

// None is an input, and none is written twice.
std::optional<Failure> CheckWrittenFiles(const PlayOptions& options);

}  // namespace ipplay
