// SPDX-License-Identifier: MIT
// A complete set of the library's settings.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ipplayout/ipplayout.h"

namespace ipplay {

struct Settings {
  IPPlayParams params{};
  ErrorInsertion errors{};
  ParametricSettings shape{};
  IPOtherSettings other{};
  TTSSettings tts{};
  std::uint64_t play_file_size = 0;
  std::uint32_t ts_packet_size = 0;
  double ip_bit_rate = 0;
  std::uint32_t ip_bit_rate_chosen = 0;
  std::uint32_t ip_enabled = 1;
};

// Hands them to the library, for the next IPStart.
void Apply(const Settings& settings);

// Every setting with its name and value, for people.
struct NamedSetting {
  std::string name;
  std::string value;
};
std::vector<NamedSetting> Describe(const Settings& settings);

}  // namespace ipplay
