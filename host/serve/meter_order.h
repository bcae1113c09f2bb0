// SPDX-License-Identifier: MIT
// What a meter measures, by the options of `ipplay measure`.
#pragma once

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "host/lineup/channel_order.h"
#include "host/measure/measure_options.h"

namespace ipplay::serve {

struct MeterOrder {
  std::string name;
  measure::MeasureOptions options;
  std::vector<std::pair<std::string, std::string>> given;  // option and value, for results
};

// The source has to be an adapter of this machine; options that read or write files, or that print,
// are none of a meter. What is wrong comes back in a sentence that begins with the option.
std::variant<MeterOrder, std::string> ParseMeterOptions(const std::vector<ChannelOption>& options);

}  // namespace ipplay::serve
