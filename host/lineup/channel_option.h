// SPDX-License-Identifier: MIT
// An option of a command as files and requests give it, and its words on a command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ipplay {

// An option without its dashes: "to", "lose", "at". A flag has the value "true" or "false"; one
// that may be repeated has a value for each time, one with two words ("at") has them side by side.
struct ChannelOption {
  std::string name;
  std::vector<std::string> values;

  bool operator==(const ChannelOption&) const = default;
};

// What is wrong with the number of values, or with that of a flag.
std::optional<std::string> WrongFlag(const ChannelOption& option);
std::optional<std::string> WrongCount(const ChannelOption& option, bool may_repeat);

std::vector<std::string> FlagWords(const ChannelOption& option);
std::vector<std::string> ValueWords(const ChannelOption& option);

}  // namespace ipplay
