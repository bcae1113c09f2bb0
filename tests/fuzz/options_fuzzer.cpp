// SPDX-License-Identifier: MIT
// Hostile command lines and configuration files, up to the plan of a playout. What is refused is
// refused in one line; what is accepted comes back from its own configuration file as it was.
#include <CLI/CLI.hpp>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "host/cli/config_file.h"
#include "host/cli/refusal.h"
#include "host/measure/measure_options.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"

using namespace ipplay;

namespace {

// The time that an input takes grows with its words, what it reaches does not.
constexpr std::size_t kMostWords = 8;

class Program {
 public:
  Program() {
    app_.require_subcommand(1);
    app_.allow_config_extras(CLI::config_extras_mode::error);
    app_.config_formatter(std::make_shared<ConfigFile>());
    DefinePlayOptions(*app_.add_subcommand("play"), play_);
    measure::DefineMeasureOptions(*app_.add_subcommand("measure"), measure_);
    play_defaults_ = play_;
    measure_defaults_ = measure_;
  }

  // The configuration of what was accepted; empty where it was refused.
  std::string Parse(std::vector<std::string> words) {
    return Try([&] {
      std::vector<std::string> reversed(words.rbegin(), words.rend());
      app_.parse(std::move(reversed));
    });
  }
  std::string Read(const std::string& config) {
    std::istringstream stream(config);
    // The command is named on the command line, and the file has its options.
    return Try([&] {
      const auto items = ConfigFile().from_config(stream);
      std::vector<std::string> reversed;
      for (auto item = items.rbegin(); item != items.rend(); ++item) {
        if (item->inputs.empty()) {
          continue;
        }
        const bool is_flag = item->inputs == std::vector<std::string>{"true"};
        for (auto value = item->inputs.rbegin(); !is_flag && value != item->inputs.rend();
             ++value) {
          reversed.push_back(*value);
        }
        reversed.push_back("--" + item->name);
      }
      reversed.push_back(items.empty() || items.front().parents.empty() ? "play"
                                                                        : items.front().parents[0]);
      app_.parse(std::move(reversed));
    });
  }
  const PlayOptions& play() const { return play_; }
  bool HasPlay() const { return app_.got_subcommand("play"); }

 private:
  template <typename Action>
  std::string Try(const Action& action) {
    play_ = play_defaults_;
    measure_ = measure_defaults_;
    try {
      action();
      return app_.config_to_str(true, false);
    } catch (const CLI::ParseError& error) {
      const std::string line = ExplainRefusal(app_, {}, error);
      if (line.empty() || line.find('\n') != std::string::npos) {
        std::abort();
      }
      return {};
    }
  }

  CLI::App app_{"", "ipplay"};
  PlayOptions play_, play_defaults_;
  measure::MeasureOptions measure_, measure_defaults_;
};

// An input and an adapter for which nearly every option can be followed.
void Plan(const PlayOptions& options) {
  StreamFacts facts;
  facts.format.packet_bytes = options.raw ? 0 : 188;
  facts.bytes = 188'000;
  PcrRate rate;
  rate.packets_per_second = rate.lowest = rate.highest = 5000;
  rate.last_packet = 900;
  rate.last_pcr = 900 * kPcrHz / 5000;
  if (!options.raw) {
    facts.rate = rate;
  }
  Path path;
  path.adapter.mtu = 9000;
  path.source = options.to.address;
  path.destination = MacAddress{};
  const auto plan = MakePlan(options, facts, path);
  if (!plan) {
    if (plan.Error().message.find('\n') != std::string::npos) {
      std::abort();
    }
  } else if (plan->sizes.payload_bytes == 0 || plan->sizes.frame_bytes > 16128 ||
             !(plan->rates.frame > 0)) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) {
    return 0;
  }
  static const auto program = std::make_unique<Program>();
  const std::string text(data + 1, data + size);
  std::string config;
  if (data[0] % 2 == 0) {
    std::vector<std::string> words{(data[0] & 2) != 0 ? "measure" : "play"};
    std::istringstream lines(text);
    for (std::string word; words.size() < kMostWords && std::getline(lines, word);) {
      words.push_back(word);
    }
    config = program->Parse(std::move(words));
  } else {
    config = program->Read(text);
  }
  if (config.empty()) {
    return 0;
  }
  if (program->HasPlay()) {
    Plan(program->play());
  }
  std::istringstream written(config);
  ConfigFile().from_config(written);
  return 0;
}
