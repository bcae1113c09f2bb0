// SPDX-License-Identifier: MIT
// A lineup on several machines: which of its channels are for this one.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace ipplay {

struct Part {
  std::uint32_t number = 1;  // from 1
  std::uint32_t of = 1;

  // By the name alone: a channel stays in its part, whatever other channels come or go. With more
  // parts a channel stays or goes to a new one.
  bool Has(std::string_view channel) const;
  std::string Text() const;  // "3/8"

  bool operator==(const Part&) const = default;
};

inline constexpr std::uint32_t kMostParts = 100'000;

// Value of an environment variable, or null.
using Environment = std::function<const char*(const char*)>;

// "3/8"; "auto", by what a job scheduler has set for this process; "auto/8" where it does not say
// of how many (a Kubernetes indexed job).
Result<Part> ParsePart(std::string_view text, const Environment& environment);

}  // namespace ipplay
