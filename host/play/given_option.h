// SPDX-License-Identifier: MIT
// Options that go with another one, or exclude it, and whether they are given.
#pragma once

#include <algorithm>
#include <optional>
#include <span>

namespace ipplay {

struct GivenOption {
  const char* name;
  bool is_given;
};

// The name of the first one that is given.
inline std::optional<const char*> FirstGiven(std::span<const GivenOption> options) {
  const auto found = std::ranges::find(options, true, &GivenOption::is_given);
  return found == options.end() ? std::nullopt : std::optional(found->name);
}

}  // namespace ipplay
