// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "host/base/confinement.h"
#include "host/base/library_output.h"
#include "host/cli/config_file.h"
#include "host/cli/help_formatter.h"
#include "host/cli/refusal.h"
#include "host/cli/words.h"
#include "host/demo/demo_command.h"
#include "host/library/device_commands.h"
#include "host/lineup/lineup_command.h"
#include "host/measure/measure_command.h"
#include "host/play/play_command.h"
#include "host/serve/serve_command.h"
#include "host/serve/serve_demo.h"

namespace {

int PrintError(ipplay::ExitStatus status, const std::string& message,
               const std::vector<std::string>& details = {}) {
  ipplay::Print(stderr, "ipplay: {}\n", ipplay::QuotedLine(message));
  for (const std::string& line : details) {
    ipplay::Print(stderr, "{}\n", ipplay::QuotedLine(line));
  }
  return static_cast<int>(status);
}

int Run(int argc, char** argv) {
  using ipplay::ExitStatus;
  const std::vector<std::string> given = ipplay::AsOptions({argv + 1, argv + std::max(argc, 1)});
  const ipplay::Words words(given);
  CLI::App app("Plays MPEG transport streams out of an Ethernet adapter at an exact bit rate",
               "ipplay");
  app.require_subcommand(1);
  app.set_version_flag("-V,--version", std::string("ipplay ") + IPPLAYOUT_VERSION);
  app.set_config("--config", "", "Read options from FILE")->type_name("FILE");
  app.allow_config_extras(CLI::config_extras_mode::error);
  app.config_formatter(std::make_shared<ipplay::ConfigFile>());
  app.formatter(std::make_shared<ipplay::HelpFormatter>());
  ipplay::Result<int> outcome = static_cast<int>(ExitStatus::kUsage);
  ipplay::RegisterDevices(app, outcome);
  ipplay::RegisterResolve(app, outcome);
  ipplay::RegisterPlay(app, outcome);
  ipplay::RegisterMeasure(app, outcome);
  ipplay::RegisterLineup(app, outcome);
  ipplay::RegisterGather(app, outcome);
  ipplay::RegisterServe(app, outcome);
  ipplay::RegisterDemo(app, outcome, ipplay::serve::ServeDemo);
  try {
    app.parse(std::vector<std::string>(given.rbegin(), given.rend()));
  } catch (const CLI::Success& success) {
    std::ostringstream text;
    app.exit(success, text, text);
    ipplay::Print(ipplay::Results(), "{}", text.str());
    outcome = static_cast<int>(ExitStatus::kPlayed);
  } catch (const CLI::ParseError& error) {
    return PrintError(ExitStatus::kUsage, ipplay::ExplainRefusal(app, words, error));
  }
  if (outcome && *outcome == 0) {
    const ipplay::ResultsFate fate = ipplay::FateOfResults();
    if (fate == ipplay::ResultsFate::kLost) {
      return PrintError(ExitStatus::kFailed, "standard output cannot be written");
    }
    return static_cast<int>(fate == ipplay::ResultsFate::kWritten ? ExitStatus::kPlayed
                                                                  : ExitStatus::kFailed);
  }
  if (outcome) {
    return *outcome;
  }
  const ipplay::Failure& failure = outcome.Error();
  return PrintError(failure.status, ipplay::NameAsTyped(app, words, failure.message),
                    failure.details);
}

}  // namespace

int main(int argc, char** argv) {
  ipplay::RefuseNewPrivileges();
  ipplay::Results();
  // A reader of the output that goes away is noticed at the write.
  std::signal(SIGPIPE, SIG_IGN);
  // So is a file that grows too large.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const std::bad_alloc&) {
    return PrintError(ipplay::ExitStatus::kFailed, "memory has run out");
  } catch (const std::system_error& error) {  // of a thread, which alone throws it
    return PrintError(
        ipplay::ExitStatus::kFailed,
        fmt::format("a thread cannot be started: {}; raise the limit of processes (ulimit "
                    "-u) or of memory (-v)",
                    error.what()));
  } catch (const std::exception& error) {
    return PrintError(ipplay::ExitStatus::kFailed, error.what());
  }
}
