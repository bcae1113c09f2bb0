// SPDX-License-Identifier: MIT
// The options of `ipplay measure`.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/measure/capture/capture_source.h"
#include "host/measure/capture/group_membership.h"
#include "host/measure/figures/settings.h"
#include "host/measure/results/limits.h"

namespace CLI {
class App;
}

namespace ipplay::measure {

struct MeasureOptions {
  std::string source;
  LiveSettings capture;
  std::vector<GroupSource> joins;  // each once
  MeasurementSettings measurement;
  std::vector<std::optional<Limit>> limits;  // in the order of LimitKinds
  std::optional<std::uint64_t> min_streams;
  std::string expected_file;
  std::optional<std::chrono::nanoseconds> duration;  // from the first frame
  std::optional<std::chrono::nanoseconds> silence;   // ends after so long without a frame
  std::optional<std::chrono::nanoseconds> wait;      // for the first frame
  bool follow = false;                               // a file that grows
  bool json = false;
  bool quiet = false;
  std::string report_file;
  std::string report_over;  // what an older report must start with to be replaced
  std::string events_file;
  std::string seconds_file;
  std::uint64_t rows = 20;
  std::string write_config;

  // Of a measurement that brings its sender along; not on the command line.
  bool plain_words = false;            // instead of the tables
  std::function<bool()> start_sender;  // called when nothing can be missed any more
  std::function<bool()> sender_ended;  // the measurement ends with it
};

// `options` outlives the command.
void DefineMeasureOptions(CLI::App& command, MeasureOptions& options);

}  // namespace ipplay::measure
