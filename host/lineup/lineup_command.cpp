// SPDX-License-Identifier: MIT
#include "host/lineup/lineup_command.h"

#include <CLI/App.hpp>

#include <cstdlib>
#include <memory>

#include "host/base/numbers.h"
#include "host/base/units.h"
#include "host/base/wall_clock.h"
#include "host/cli/option_builder.h"
#include "host/lineup/gather.h"
#include "host/lineup/lineup_file.h"
#include "host/lineup/lineup_run.h"

namespace ipplay {

void RegisterLineup(CLI::App& app, Result<int>& outcome) {
  CLI::App* command = app.add_subcommand("lineup", "Play many channels from one file");
  const auto options = std::make_shared<LineupOptions>();
  const auto part = std::make_shared<std::string>();
  OptionBuilder add(*command);
  add.Value("FILE", options->file, "FILE", "a file", "Lineup to play (TOML); required", ParseText)
      ->required();
  add.Flag("--check", options->check, "Report everything that is wrong, and send nothing");
  add.Value("--part", *part, "K/N|auto[/N]", "K/N, auto or auto/N",
            "Play only the channels of this part of a lineup on N machines; auto: the part that "
            "Slurm, Open MPI or Kubernetes gives to this process",
            ParseText);
  add.Value("--results", options->results, "DIR", "a folder",
            "Write the result to DIR/part-K-of-N.json, which `ipplay gather` reads", ParseText);
  add.Flag("--json", options->json,
           "Print one JSON object at the end on standard output, and nothing else");
  add.Flag("--quiet", options->quiet, "No table while it runs");
  add.Value("--start-at", options->start_at, "TIME", kStartTimeWords,
            "Start all channels at this time, whatever the file says; at once if it is over",
            ParseWallClock);
  command->footer("SIGHUP reads the file again; channels that did not change play on.");
  command->callback([options, part, &outcome] {
    if (!part->empty()) {
      const auto parsed = ParsePart(*part, [](const char* name) { return std::getenv(name); });
      if (!parsed) {
        outcome = parsed.Error();
        return;
      }
      options->part = *parsed;
    }
    outcome = options->check ? CheckLineup(*options) : RunLineup(*options);
  });
}

void RegisterGather(CLI::App& app, Result<int>& outcome) {
  CLI::App* command = app.add_subcommand("gather", "Make one result of the parts of a lineup");
  const auto options = std::make_shared<GatherOptions>();
  OptionBuilder add(*command);
  add.Value("DIR", options->folder, "DIR", "a folder",
            "Folder with the results that `ipplay lineup --results` wrote; required", ParseText)
      ->required();
  add.Value("--lineup", options->lineup, "FILE", "a file",
            "Name the channels of this lineup that no part has, and those that only a part has",
            ParseText);
  add.Value("--max-lateness", options->limits.lateness, "TIME", "a time as 500us",
            "Fail if 1 % of the frames of a channel left later than this", ParseDuration);
  add.Value("--max-clock-error", options->limits.clock_error, "TIME", "a time as 10ms",
            "Fail if the clock of a machine may be wrong by more than this, or is not synchronised",
            ParseDuration);
  add.Value("--report", options->report, "FILE", "a file", "Write an HTML page to FILE", ParseText);
  add.Flag("--json", options->json, "Print one JSON object on standard output");
  command->callback([options, &outcome] { outcome = Gather(*options); });
}

}  // namespace ipplay
