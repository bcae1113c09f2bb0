// SPDX-License-Identifier: MIT
// A number for each name, the same on every machine. Not keyed: names are the user's own.
#pragma once

#include <cstdint>
#include <string_view>

namespace ipplay {

// FNV-1a. Its upper bits are poor for short names; mix them before they are used.
constexpr std::uint64_t HashOfName(std::string_view name) {
  std::uint64_t hash = 14695981039346656037U;
  for (const char c : name) {
    hash = (hash ^ static_cast<std::uint8_t>(c)) * 1099511628211U;
  }
  return hash;
}

}  // namespace ipplay
