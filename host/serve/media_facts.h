// SPDX-License-Identifier: MIT
// What is in a file: its rate, its length and its services.
#pragma once

#include "host/serve/http_message.h"
#include "host/serve/media_store.h"

namespace ipplay::serve {

// Reads at most some megabytes of a large file. A failure where it cannot be read.
Result<Json> MediaFacts(const MediaFile& file);

// Messages name what was opened; this puts the name in that the user knows.
std::string WithName(std::string text, const std::string& opened, const std::string& name);

}  // namespace ipplay::serve
