#include "host/play_options.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <sstream>

namespace ipplay {
namespace {

using namespace std::chrono_literals;

// The command line as a text; its words have no blanks in them.
struct Parsed {
  PlayOptions options;
  std::string error;   // empty if all was accepted
  std::string config;  // all options as a configuration file
};

void Parse(const std::string& line, Parsed& parsed, const std::string& config = {}) {
  CLI::App app("test", "ipplay");
  CLI::App* play = app.add_subcommand("play");
  DefinePlayOptions(*play, parsed.options);
  try {
    std::string words = fmt::format("play {}", line);
    if (!config.empty()) {
      app.set_config("--config");
      app.allow_config_extras(CLI::config_extras_mode::error);
      words = fmt::format("--config {} {}", config, words);
    }
    app.parse(words);
    parsed.config = app.config_to_str(true);
  } catch (const CLI::ParseError& error) {
    parsed.error = error.what();
  }
}

Parsed Parse(const std::string& line) {
  Parsed parsed;
  Parse(line, parsed);
  return parsed;
}

TEST(PlayOptions, Values) {
  const Parsed parsed = Parse(
      "in.ts --to rtp://239.1.1.1:5004 --bitrate 38810k --ppm -20 --loop forever --burst 10ms "
      "--jitter square:500us --lose 2/1000 --delay 1/1000:3 --copies 16 --step dst-ip=0.0.0.1 "
      "--step dst-port=2 --at 10s lose --at 1m30s pause:2s --tos 0x28 --ssrc 4294967295 "
      "--sequence random --dont-fragment off --priority time-critical");
  ASSERT_EQ(parsed.error, "");
  const PlayOptions& o = parsed.options;
  EXPECT_EQ(o.input, "in.ts");
  EXPECT_EQ(o.bit_rate, 38'810'000.0);
  EXPECT_EQ(o.ppm, -20);
  EXPECT_FALSE(o.rounds);
  EXPECT_TRUE(o.burst->by_time);
  EXPECT_EQ(o.burst->milliseconds, 10U);
  EXPECT_EQ(o.jitter->distribution, 0U);
  EXPECT_EQ(o.jitter->amount, 500.0F);
  EXPECT_EQ(o.lose->range, 1000U);
  EXPECT_EQ(o.delay->distance, 3U);
  ASSERT_EQ(o.steps.size(), 2U);
  EXPECT_EQ(o.steps[1].number, 2U);
  ASSERT_EQ(o.time_line.size(), 2U);
  EXPECT_EQ(o.time_line[1].first, 90s);
  EXPECT_EQ(o.time_line[1].second.kind, ActionKind::kPause);
  EXPECT_EQ(o.time_line[1].second.length, 2s);
  EXPECT_EQ(o.tos, 0x28U);
  EXPECT_EQ(o.ssrc.value, 4294967295U);
  EXPECT_FALSE(o.ssrc.random);
  EXPECT_TRUE(o.sequence->random);
  EXPECT_EQ(o.dont_fragment, false);
  EXPECT_EQ(o.priority, 5U);
}

// One line that names the option, the value and what is allowed.
TEST(PlayOptions, RefusedValuesAreExplained) {
  const struct {
    const char* option;
    const char* value;
    const char* allowed;
  } cases[] = {
      {"--to", "http://1.2.3.4:1", "rtp://ADDRESS:PORT"},
      {"--src-ip", "1.2.3", "IPv4 or IPv6"},
      {"--dst-mac", "1:2:3", "six bytes"},
      {"--dst-port", "65536", "0 to 65535"},
      {"--vlan", "4096", "0 to 4095"},
      {"--vlan-priority", "8", "0 to 7"},
      {"--ttl", "256", "0 to 255"},
      {"--flow-label", "0x100000", "0 to 1048575"},
      {"--rtp-version", "4", "0 to 3"},
      {"--sequence", "65536", "random or 0 to 65535"},
      {"--ts-per-datagram", "0", "1 to 85"},
      {"--bitrate", "fast", "as 9.75M"},
      {"--bitrate", "0", "above 0"},
      {"--ppm", "200000", "-100000 to 100000"},
      {"--loop", "0", "forever or a number from 1"},
      {"--burst", "1.5ms", "whole milliseconds"},
      {"--burst", "0", "datagrams"},
      {"--jitter", "sine:10", "PERCENT%"},
      {"--jitter", "sine:101%", "100%"},
      {"--jitter", "round:10%", "square:TIME"},
      {"--copies", "0", "1 to 1000000"},
      {"--lose", "3/2", "N from 1 to RANGE"},
      {"--lose", "0/2", "N from 1 to RANGE"},
      {"--delay", "1/2:0", "D from 1"},
      {"--step", "color=1", "dst-ip"},
      {"--step", "payload-type=128", "FIELD=VALUE"},
      {"--dont-fragment", "maybe", "on or off"},
      {"--priority", "extreme", "time-critical"},
      {"--prefill", "-1s", "500ms"},
      {"--stats", "xml", "text or json"},
  };
  for (const auto& c : cases) {
    const std::string text = fmt::format("{} {}", c.option, c.value);
    const bool is_target = std::string(c.option) == "--to";
    const std::string error =
        Parse(fmt::format("in.ts {}{}", text, is_target ? "" : " --to rtp://1.2.3.4:1")).error;
    EXPECT_EQ(error.find(c.option), 0U) << text << ": " << error;
    EXPECT_NE(error.find(c.value), std::string::npos) << text << ": " << error;
    EXPECT_NE(error.find(c.allowed), std::string::npos) << text << ": " << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << text << ": " << error;
  }
  for (const auto& [time, action] :
       {std::pair{"soon", "lose"}, {"1s", "explode"}, {"1s", "lose:2s"}, {"1s", "pause:0s"}}) {
    const std::string error =
        Parse(fmt::format("in.ts --to rtp://1.2.3.4:1 --at {} {}", time, action)).error;
    EXPECT_EQ(error.find("--at: \""), 0U) << error;
  }
}

TEST(PlayOptions, WhatIsMissingOrUnknownIsRefused) {
  EXPECT_NE(Parse("in.ts").error.find("--to"), std::string::npos);
  EXPECT_NE(Parse("--to rtp://1.2.3.4:1").error.find("--input"), std::string::npos);
  EXPECT_NE(Parse("in.ts --to rtp://1.2.3.4:1 --bogus 1").error.find("--bogus"), std::string::npos);
}

// What is written says the same when it is read, and the command line comes before it.
TEST(PlayOptions, ConfigurationFileRoundTrip) {
  const Parsed written = Parse(
      "in.ts --to udp://[ff3e::1]:5000 --ppm -20 --loop forever --step dst-ip=::1 --step "
      "dst-port=2 --at 10s lose --at 20s pause:2s --cut --frame-size 1400 --jitter gaussian:20%");
  ASSERT_EQ(written.error, "");
  const std::string path = fmt::format("/tmp/ipplay-test-config-{}", getpid());
  {
    std::ofstream file(path);
    file << written.config;
  }
  Parsed read;
  Parse("--ppm 5", read, path);
  Parsed again;
  Parse("", again, path);
  {
    std::ofstream file(path, std::ios::app);
    file << "play.volume=11\n";
  }
  Parsed unknown;
  Parse("", unknown, path);
  std::remove(path.c_str());
  ASSERT_EQ(read.error, "");
  EXPECT_EQ(read.options.ppm, 5);
  EXPECT_EQ(read.options.input, "in.ts");
  EXPECT_FALSE(read.options.rounds);
  EXPECT_TRUE(read.options.cut);
  EXPECT_EQ(read.options.steps.size(), 2U);
  EXPECT_EQ(read.options.time_line.size(), 2U);
  EXPECT_EQ(again.config, written.config);
  EXPECT_NE(unknown.error.find("volume"), std::string::npos) << unknown.error;
}

}  // namespace
}  // namespace ipplay
