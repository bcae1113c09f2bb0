// SPDX-License-Identifier: MIT
// The file that describes many channels (TOML): [defaults], [[channel]] and [[generate]].
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/lineup/channel_order.h"

namespace ipplay {

// Something in the file that is wrong.
struct Mistake {
  std::uint32_t line = 0;
  std::string text;

  auto operator<=>(const Mistake&) const = default;
};

struct PlannedChannel {
  ChannelOrder order;
  std::uint32_t line = 0;  // where it begins
};

struct Lineup {
  std::vector<PlannedChannel> channels;  // those without a mistake
  std::vector<Mistake> mistakes;         // in the order of lines
};

// What ParseWallClock takes.
inline constexpr const char* kStartTimeWords =
    "a time from now as \"+5s\", or one with its zone as 2026-01-31T20:00:00Z";

// Reads the file and judges every option; inputs are not opened. Paths of inputs count from the
// file's folder. A failure where the file cannot be read.
Result<Lineup> ReadLineup(const std::string& path);
// The same of its text, from which paths count as they are if `folder` is empty.
Lineup ParseLineup(const std::string& text, const std::string& folder);

}  // namespace ipplay
