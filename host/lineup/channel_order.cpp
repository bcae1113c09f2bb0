// SPDX-License-Identifier: MIT
#include "host/lineup/channel_order.h"

#include <fmt/format.h>
#include <CLI/App.hpp>

#include <algorithm>
#include <array>

#include "host/cli/refusal.h"

namespace ipplay {
namespace {

// They belong to the run of one playout, with its terminal.
constexpr std::array<std::string_view, 22> kNotOfChannels{
    "json",      "stats",       "quiet",     "dry-run",     "write-config", "priority",
    "help",      "config",      "no-damage", "ts-fault",    "control",      "twin",
    "twin-skew", "twin-device", "twin-lose", "twin-delay",  "twin-jitter",  "ledger",
    "timing",    "keep-losses", "sap",       "sap-interval"};

// What there is, to be looked up: to define it takes longer than all else that is done to an order.
const CLI::App& KnownOptions() {
  struct Known {
    Known() { DefinePlayOptions(command, scratch); }

    CLI::App command;
    PlayOptions scratch;
  };
  static const Known known;
  return known.command;
}

bool IsFlag(const CLI::Option& option) {
  return option.get_items_expected_max() == 0;
}

bool IsChannels(std::string_view name) {
  return !name.empty() && std::ranges::find(kNotOfChannels, name) == kNotOfChannels.end();
}

// What is wrong with the option's form; its value is judged when it is parsed.
std::optional<std::string> WrongForm(const ChannelOption& option) {
  if (!IsChannelOption(option.name)) {
    return fmt::format("{}: not an option of a channel; see `ipplay play --help`", option.name);
  }
  const CLI::Option& known = *KnownOptions().get_option("--" + option.name);
  if (IsFlag(known)) {
    return WrongFlag(option);
  }
  const bool repeats = option.name == "step" || option.name == "at";
  if (auto wrong = WrongCount(option, repeats)) {
    return wrong;
  }
  if (option.name == "at" && option.values.size() % 2 != 0) {
    return "--at: give a time and an action, as [\"10s\", \"lose\"]";
  }
  return std::nullopt;
}

std::vector<std::string> WordsFor(const ChannelOption& option) {
  if (IsFlag(*KnownOptions().get_option("--" + option.name))) {
    return FlagWords(option);
  }
  if (option.name == "at") {
    std::vector<std::string> words;
    for (std::size_t i = 0; i + 1 < option.values.size(); i += 2) {
      words.insert(words.end(), {"--at", option.values[i], option.values[i + 1]});
    }
    return words;
  }
  return ValueWords(option);
}

// What is wrong with the options as the command line would report it; none if they can be parsed.
std::optional<std::string> Parse(std::span<const ChannelOption> given, bool alone,
                                 PlayOptions& options) {
  CLI::App command;
  DefinePlayOptions(command, options);
  if (alone) {
    command.get_option("--input")->required(false);
    command.get_option("--to")->required(false);
  }
  std::vector<std::string> words;
  for (const ChannelOption& option : given) {
    const auto added = WordsFor(option);
    words.insert(words.end(), added.begin(), added.end());
  }
  try {
    command.parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::ParseError& error) {
    return ExplainRefusal(command, {}, error);
  }
  return std::nullopt;
}

// Form, and what is missing; the values too, each for itself, where that is wanted.
std::vector<std::string> AllThatIsWrong(const std::vector<ChannelOption>& given, bool values) {
  std::vector<std::string> wrong;
  for (const ChannelOption& option : given) {
    auto mistake = WrongForm(option);
    if (!mistake && values) {
      PlayOptions alone;
      mistake = Parse({&option, 1}, true, alone);
    }
    if (mistake) {
      wrong.push_back(*std::move(mistake));
    }
  }
  const auto has = [&given](std::string_view name) {
    return std::ranges::any_of(given, [&](const auto& option) { return option.name == name; });
  };
  for (const std::string_view needed : {"input", "to"}) {
    if (!has(needed)) {
      wrong.push_back(fmt::format("--{} is required", needed));
    }
  }
  return wrong;
}

}  // namespace

std::optional<Restart> ParseRestart(std::string_view text) {
  if (text == "never") {
    return Restart::kNever;
  }
  if (text == "on-failure") {
    return Restart::kOnFailure;
  }
  if (text == "always") {
    return Restart::kAlways;
  }
  return std::nullopt;
}

bool ChannelOrder::IsSameAs(const ChannelOrder& other) const {
  return name == other.name && options == other.options && restart == other.restart &&
         restart_after == other.restart_after;
}

bool IsChannelOption(const std::string& name) {
  return IsChannels(name) && KnownOptions().get_option_no_throw("--" + name) != nullptr;
}

ParsedOptions ParseChannelOptions(const std::vector<ChannelOption>& options) {
  auto wrong = AllThatIsWrong(options, false);
  PlayOptions parsed;
  auto mistake = wrong.empty() ? Parse(options, false, parsed) : std::nullopt;
  if (mistake || !wrong.empty()) {
    wrong = AllThatIsWrong(options, true);
    return wrong.empty() ? std::vector{*std::move(mistake)} : wrong;
  }
  if (parsed.input == "-") {
    return std::vector<std::string>{"--input: a channel cannot play standard input; give a file"};
  }
  const bool orders_other =
      std::ranges::any_of(parsed.time_line, [](const auto& entry) { return entry.second.of_twin; });
  if (orders_other) {
    return std::vector<std::string>{"--at: a channel has no second path; leave twin- out"};
  }
  return parsed;
}

}  // namespace ipplay
