// SPDX-License-Identifier: MIT
#include "host/serve/meter_order.h"

#include <fmt/format.h>
#include <net/if.h>
#include <CLI/App.hpp>

#include <algorithm>
#include <array>
#include <string_view>

#include "host/cli/refusal.h"

namespace ipplay::serve {
namespace {

enum class Form { kValue, kList, kFlag };

struct MeterOption {
  std::string_view name;
  Form form = Form::kValue;
};
constexpr std::array<MeterOption, 18> kOptions{{{"source"},
                                                {"join", Form::kList},
                                                {"filter"},
                                                {"direction"},
                                                {"buffer"},
                                                {"snaplen"},
                                                {"adapter-timestamps", Form::kFlag},
                                                {"no-promiscuous", Form::kFlag},
                                                {"no-udp-checksum", Form::kFlag},
                                                {"no-ts", Form::kFlag},
                                                {"expect-rate"},
                                                {"media-rate"},
                                                {"clump-gap"},
                                                {"rtp"},
                                                {"rtp-clock"},
                                                {"reorder-window"},
                                                {"max-streams"},
                                                {"memory"}}};

// Less than one measurement alone may take, since there may be some.
constexpr const char* kBufferMebibytes = "64";
constexpr const char* kMemory = "128M";

// What is wrong, or the words of a command line.
std::variant<std::vector<std::string>, std::string> WordsOf(const ChannelOption& option) {
  const auto known = std::ranges::find(kOptions, option.name, &MeterOption::name);
  if (option.name.empty() || known == kOptions.end()) {
    return fmt::format(
        "{}: no option of a meter; give source, join, filter, direction or another "
        "one of `ipplay measure --help` that needs no file",
        option.name);
  }
  const bool is_flag = known->form == Form::kFlag;
  if (auto wrong = is_flag ? WrongFlag(option) : WrongCount(option, known->form == Form::kList)) {
    return *std::move(wrong);
  }
  return is_flag ? FlagWords(option) : ValueWords(option);
}

bool IsAdapter(const std::string& source) {
  return source == "any" || ::if_nametoindex(source.c_str()) != 0;
}

}  // namespace

std::variant<MeterOrder, std::string> ParseMeterOptions(const std::vector<ChannelOption>& options) {
  MeterOrder order;
  std::vector<std::string> words;
  bool has_buffer = false;
  bool has_memory = false;
  for (const ChannelOption& option : options) {
    auto added = WordsOf(option);
    if (auto* const wrong = std::get_if<std::string>(&added)) {
      return std::move(*wrong);
    }
    for (std::string& word : std::get<0>(added)) {
      words.push_back(std::move(word));
    }
    has_buffer |= option.name == "buffer";
    has_memory |= option.name == "memory";
    order.given.emplace_back("--" + option.name, fmt::format("{}", fmt::join(option.values, " ")));
  }
  if (!has_buffer) {
    words.push_back(fmt::format("--buffer={}", kBufferMebibytes));
  }
  if (!has_memory) {
    words.push_back(fmt::format("--memory={}", kMemory));
  }
  CLI::App command;
  measure::DefineMeasureOptions(command, order.options);
  try {
    std::ranges::reverse(words);
    command.parse(words);
  } catch (const CLI::ParseError& error) {
    return ExplainRefusal(command, {}, error);
  }
  if (!IsAdapter(order.options.source)) {
    return fmt::format(
        "--source: \"{}\" is no adapter of this machine; give one of /api/v1/devices",
        order.options.source);
  }
  return order;
}

}  // namespace ipplay::serve
