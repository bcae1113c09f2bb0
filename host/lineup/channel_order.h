// SPDX-License-Identifier: MIT
// What is wanted of a channel: the options of `ipplay play` by their long names, and what becomes
// of it when it ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "host/base/result.h"
#include "host/lineup/channel_option.h"
#include "host/play/play_options.h"

namespace ipplay {

enum class Restart {
  kNever,
  kOnFailure,  // when it could not start, or broke off
  kAlways,     // at its end too
};
inline constexpr std::string_view kRestartWords = "never, on-failure or always";
std::optional<Restart> ParseRestart(std::string_view text);

struct ChannelOrder {
  std::string name;
  std::vector<ChannelOption> options;  // "input" and "to" among them
  Restart restart = Restart::kNever;
  std::chrono::nanoseconds restart_after = std::chrono::seconds(1);
  std::optional<std::chrono::nanoseconds> start_at;  // since 1970; a common start

  // Whether a channel that plays one of them plays the other: all but the time of the start.
  bool IsSameAs(const ChannelOrder& other) const;
};

// The options, as the command line would have them; or what is wrong, each in a sentence that
// begins with the option.
using ParsedOptions = std::variant<PlayOptions, std::vector<std::string>>;
ParsedOptions ParseChannelOptions(const std::vector<ChannelOption>& options);

// Whether `ipplay play` has an option of this name that a channel can have.
bool IsChannelOption(const std::string& name);

}  // namespace ipplay
