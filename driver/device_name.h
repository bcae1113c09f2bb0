// SPDX-License-Identifier: MIT
// Device names: an interface's name behind kDevicePrefix.
#pragma once

#include <optional>
#include <string>

namespace ipplayout {

// What follows the first prefix in `name`; nothing when it has none.
std::optional<std::string> NameWithoutPrefix(const std::string& name);

}  // namespace ipplayout
