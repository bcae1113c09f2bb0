// SPDX-License-Identifier: MIT
// Checks of values that a host has given, with the sentence for one that is not allowed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "control/failure.h"

namespace ipplayout {

// A field of whole numbers and its range.
struct Range {
  const char* name;
  std::int64_t value;
  std::int64_t least;
  std::int64_t most;
};

Failure Refuse(const char* name, const std::string& value, const std::string& allowed);
Failure CheckRange(const Range& range);
std::string Text(double value);

template <std::size_t N>
Failure CheckRanges(const Range (&ranges)[N]) {
  for (const Range& range : ranges) {
    if (Failure failure = CheckRange(range)) {
      return failure;
    }
  }
  return {};
}

}  // namespace ipplayout
