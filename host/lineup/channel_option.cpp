// SPDX-License-Identifier: MIT
#include "host/lineup/channel_option.h"

#include <fmt/format.h>

namespace ipplay {

std::optional<std::string> WrongFlag(const ChannelOption& option) {
  const bool valid = option.values == std::vector<std::string>{"true"} ||
                     option.values == std::vector<std::string>{"false"};
  return valid ? std::nullopt : std::optional(fmt::format("--{}: give true or false", option.name));
}

std::optional<std::string> WrongCount(const ChannelOption& option, bool may_repeat) {
  const bool valid = option.values.size() == 1 || (may_repeat && !option.values.empty());
  return valid ? std::nullopt
               : std::optional(
                     fmt::format("--{}: {} values; give one", option.name, option.values.size()));
}

std::vector<std::string> FlagWords(const ChannelOption& option) {
  return option.values.front() == "true" ? std::vector{"--" + option.name}
                                         : std::vector<std::string>{};
}

std::vector<std::string> ValueWords(const ChannelOption& option) {
  std::vector<std::string> words;
  for (const std::string& value : option.values) {
    words.push_back(fmt::format("--{}={}", option.name, value));
  }
  return words;
}

}  // namespace ipplay
