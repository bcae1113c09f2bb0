#include "host/measure/measure_command.h"

#include <fmt/format.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/measure/measure_options.h"
#include "host/measure/measure_run.h"

namespace ipplay {
namespace {

// Every option that was given, as the user wrote it.
std::vector<std::pair<std::string, std::string>> GivenOptions(const CLI::App& command) {
  std::vector<std::pair<std::string, std::string>> given;
  for (const CLI::Option* option : command.get_options()) {
    if (option->count() == 0) continue;
    given.emplace_back(option->get_name(), fmt::format("{}", fmt::join(option->results(), " ")));
  }
  return given;
}

}  // namespace

void RegisterMeasure(CLI::App& app, int& exit_status) {
  CLI::App* command = app.add_subcommand(
      "measure", "Measure the streams that arrive at an adapter, or that a capture file holds");
  const auto options = std::make_shared<measure::MeasureOptions>();
  measure::DefineMeasureOptions(*command, *options);
  command->callback([command, options, &exit_status] {
    exit_status = measure::RunMeasurement(*options, GivenOptions(*command));
  });
}

}  // namespace ipplay
