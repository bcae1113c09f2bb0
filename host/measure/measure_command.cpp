// SPDX-License-Identifier: MIT
#include "host/measure/measure_command.h"

#include <fmt/format.h>
#include <CLI/App.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/cli/config_file.h"
#include "host/measure/measure_options.h"
#include "host/measure/measure_run.h"
#include "host/measure/results/report_html.h"

namespace ipplay {
namespace {

// Every option that was given, as the user wrote it, and every other one that has a default.
std::vector<std::pair<std::string, std::string>> OptionsInForce(const CLI::App& command) {
  std::vector<std::pair<std::string, std::string>> options;
  for (const CLI::Option* option : command.get_options()) {
    const std::string value = option->count() > 0
                                  ? fmt::format("{}", fmt::join(option->results(), " "))
                                  : option->get_default_str();
    if (!value.empty()) {
      options.emplace_back(option->get_name(), value);
    }
  }
  return options;
}

}  // namespace

void RegisterMeasure(CLI::App& app, Result<int>& outcome) {
  CLI::App* command = app.add_subcommand(
      "measure", "Measure the streams that arrive at an adapter, or that a capture file holds");
  const auto options = std::make_shared<measure::MeasureOptions>();
  measure::DefineMeasureOptions(*command, *options);
  // --config belongs to the application, which reads it before the command runs.
  command->fallthrough();
  command->footer(
      "--config FILE reads options, as --write-config wrote them; those on the command "
      "line take precedence.");
  command->callback([command, options, &app, &outcome] {
    if (auto failure = WriteConfig(app, options->write_config)) {
      outcome = *std::move(failure);
      return;
    }
    if (IsFromFile(app, *command, "--report")) {
      options->report_over = measure::kReportStart;
    }
    outcome = measure::RunMeasurement(*options, OptionsInForce(*command));
  });
}

}  // namespace ipplay
