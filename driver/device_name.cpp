// SPDX-License-Identifier: MIT
#include "driver/device_name.h"

#include <string_view>

#include "driver/capture_driver.h"

namespace ipplayout {

std::optional<std::string> NameWithoutPrefix(const std::string& name) {
  const std::string_view prefix = kDevicePrefix;
  const std::size_t position = name.find(prefix);
  if (position == std::string::npos) {
    return std::nullopt;
  }
  return name.substr(position + prefix.size());
}

}  // namespace ipplayout
