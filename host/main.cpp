#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <sstream>

#include "host/commands.h"
#include "host/library_output.h"
#include "host/measure/measure_command.h"

namespace {

int Run(int argc, char** argv) {
  using ipplay::ExitStatus;
  CLI::App app("Plays MPEG transport streams out of an Ethernet adapter at an exact bit rate",
               "ipplay");
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("ipplay ") + IPPLAYOUT_VERSION);
  app.set_config("--config", "", "Read options from FILE")->type_name("FILE");
  app.allow_config_extras(CLI::config_extras_mode::error);
  int exit_status = static_cast<int>(ExitStatus::kUsage);
  ipplay::RegisterDevices(app, exit_status);
  ipplay::RegisterResolve(app, exit_status);
  ipplay::RegisterPlay(app, exit_status);
  ipplay::RegisterMeasure(app, exit_status);
  ipplay::RegisterDemo(app, exit_status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    std::ostringstream text;
    app.exit(success, text, text);
    fmt::print(ipplay::Results(), "{}", text.str());
    return static_cast<int>(ExitStatus::kPlayed);
  } catch (const CLI::ParseError& error) {
    fmt::print(stderr, "ipplay: {}\n", error.what());
    return static_cast<int>(ExitStatus::kUsage);
  }
  return exit_status;
}

}  // namespace

int main(int argc, char** argv) {
  ipplay::Results();
  // A reader of the output that goes away is noticed at the write.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ipplay: %s\n", error.what());
    return static_cast<int>(ipplay::ExitStatus::kFailed);
  }
}
