// The rights that a process needs to send frames.
#pragma once

#include <optional>
#include <string>

namespace ipplay {

// Nothing if the process may open adapters; else what is missing and what to do about it, in one
// line.
std::optional<std::string> MissingRightToSend();

}  // namespace ipplay
