// SPDX-License-Identifier: MIT
#include "control/value_checks.h"

#include <cstdio>

#include "ipplayout/playouts.h"

namespace ipplayout {

Failure Refuse(const char* name, const std::string& value, const std::string& allowed) {
  return {IPPLAYOUT_BAD_VALUE, std::string(name) + " is " + value + "; it can be " + allowed};
}

Failure CheckRange(const Range& range) {
  if (range.value >= range.least && range.value <= range.most) {
    return {};
  }
  return Refuse(range.name, std::to_string(range.value),
                std::to_string(range.least) + " to " + std::to_string(range.most));
}

std::string Text(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

}  // namespace ipplayout
