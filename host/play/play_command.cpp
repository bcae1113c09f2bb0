// SPDX-License-Identifier: MIT
#include "host/play/play_command.h"

// `ipplay play`.
#include <fmt/format.h>
#include <CLI/App.hpp>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "host/base/event.h"
#include "host/base/library_output.h"
#include "host/base/line_server.h"
#include "host/base/patience.h"
#include "host/base/text.h"
#include "host/base/units.h"
#include "host/cli/config_file.h"
#include "host/library/library.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"
#include "host/play/play_session.h"
#include "host/play/preparation.h"
#include "host/play/report.h"
#include "host/play/sap.h"
#include "host/play/sdp.h"
#include "host/play/written_files.h"

namespace ipplay {
namespace {

void Introduce(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan,
               const Adapter& adapter) {
  if (!options.quiet) {
    Print(stderr, "{}", Introduction(options, facts, plan, adapter.name));
  }
  for (const std::string& note : plan.notes) {
    Print(stderr, "ipplay: note: {}\n", note);
  }
}

// With the notes that the first target has not.
void IntroduceFurther(const Output& output, const PlayPlan& first) {
  if (!output.options.quiet) {
    Print(stderr, "and {}\n", WayText(output.options, output.plan, output.path.adapter.name));
  }
  for (const std::string& note : output.plan.notes) {
    if (std::find(first.notes.begin(), first.notes.end(), note) == first.notes.end()) {
      Print(stderr, "ipplay: note: {}\n", note);
    }
  }
}

void IntroduceTwin(const PlayOptions& options, const TwinPath& twin) {
  if (!options.quiet) {
    Print(stderr, "second path: {} through {}, {} later\n", FormatTarget(twin.options.to),
          twin.path.adapter.name,
          FormatDuration(options.twin_skew.value_or(std::chrono::nanoseconds(0))));
  }
  for (const std::string& note : twin.plan.notes) {
    Print(stderr, "ipplay: note: second path: {}\n", note);
  }
}

// Only the command line replaces files, and none replaces an input or another one that is written.
std::optional<Failure> CheckFiles(const CLI::App& app, const PlayOptions& options) {
  const CLI::App& command = *app.get_subcommand("play");
  const struct {
    const char* option;
    const std::string& path;
    bool is_from_file;
  } kFiles[] = {
      {"--into", options.into,
       IsFromFile(app, command, "--into") || IsFromFile(app, command, "--to")},
      {"--ledger", options.ledger, IsFromFile(app, command, "--ledger")},
  };
  std::error_code ignored;
  for (const auto& file : kFiles) {
    if (!file.path.empty() && file.is_from_file && std::filesystem::exists(file.path, ignored)) {
      return UsageFailure(
          fmt::format("{} exists, and a configuration file replaces no other file; give it with {}",
                      QuotedLine(file.path), file.option));
    }
  }
  return CheckWrittenFiles(options);
}

void PrintDryRun(const PlayOptions& options, Prepared& prepared) {
  const auto payload = FirstPayload(prepared.plan, prepared.facts, prepared.input);
  Print(Results(), "{}", DryRun(options, prepared.facts, prepared.plan, prepared.path, payload));
  if (const auto& twin = prepared.twin) {
    Print(Results(), "\nSecond path: {}",
          DryRun(twin->options, prepared.facts, twin->plan, twin->path, payload));
  }
}

// Null where no program is to give orders.
Result<std::unique_ptr<LineServer>> ListenForOrders(const PlayOptions& options) {
  if (options.control.empty()) {
    return std::unique_ptr<LineServer>();
  }
  return LineServer::Listen("--control", options.control);
}

// The ways of all targets but the first, and of the second path.
std::optional<Failure> CompleteFurther(const PlayOptions& options, Prepared& prepared) {
  for (Output& output : prepared.further) {
    if (auto failure = CompletePath(output.options, output.path, output.plan)) {
      return failure;
    }
    IntroduceFurther(output, prepared.plan);
  }
  if (auto& twin = prepared.twin) {
    if (auto failure = CompletePath(twin->options, twin->path, twin->plan)) {
      return failure;
    }
    IntroduceTwin(options, *twin);
  }
  return std::nullopt;
}

// Of all targets, those that are announced.
std::vector<std::pair<const PlayOptions*, const Path*>> Announced(const PlayOptions& options,
                                                                  const Prepared& prepared) {
  std::vector<std::pair<const PlayOptions*, const Path*>> targets{{&options, &prepared.path}};
  for (const Output& output : prepared.further) {
    targets.emplace_back(&output.options, &output.path);
  }
  std::erase_if(targets, [](const auto& target) { return !SapAnnouncer::IsFor(*target.first); });
  return targets;
}

// `sdp` is what describes the first target.
Result<SapAnnouncers> OpenAnnouncers(const PlayOptions& options, const Prepared& prepared,
                                     const std::string& sdp) {
  SapAnnouncers announcers;
  for (const auto& [target, path] : Announced(options, prepared)) {
    auto announcer =
        SapAnnouncer::Open(*target, *path, target == &options ? sdp : SdpText(*target, *path));
    if (!announcer) {
      return announcer.Error();
    }
    announcers.push_back(std::move(*announcer));
  }
  return {std::move(announcers)};
}

void IntroduceAnnouncers(const PlayOptions& options, const SapAnnouncers& announcers) {
  for (const auto& announcer : announcers) {
    if (!options.quiet) {
      Print(stderr, "announced to {} about every {}\n", FormatIp(announcer->Group()),
            FormatDuration(options.sap_interval));
    }
  }
}

// What has been prepared leaves.
Result<int> Perform(const PlayOptions& options, Prepared& prepared, const Event& stop_reading) {
  auto& [path, facts, plan, input, further, twin, then] = prepared;
  const std::string sdp = SdpText(options, path);
  auto announcers = OpenAnnouncers(options, prepared, sdp);
  if (!announcers) {
    return announcers.Error();
  }
  if (const auto failure = CompletePath(options, path, plan)) {
    return *failure;
  }
  if (const auto failure = WriteSdp(options, sdp)) {
    return *failure;
  }
  const auto control = ListenForOrders(options);
  if (!control) {
    return control.Error();
  }
  Introduce(options, facts, plan, path.adapter);
  if (const auto failure = CompleteFurther(options, prepared)) {
    return *failure;
  }
  IntroduceAnnouncers(options, *announcers);
  PlaySession session(options, plan, twin, MakeReader(std::move(prepared)), std::move(further),
                      std::move(*announcers), stop_reading, control->get());
  return static_cast<int>(session.Run());
}

Result<int> Play(CLI::App& app, const PlayOptions& options) {
  if (auto failure = CheckFiles(app, options)) {
    return *std::move(failure);
  }
  const Library library;
  const Event stop_reading;
  auto prepared = [&] {
    std::optional<Patience> patience;
    if (!options.quiet) {
      patience.emplace(fmt::format("reading {} ...", QuotedLine(options.input)));
    }
    return Prepare(options, library.Adapters(), stop_reading.Get());
  }();
  if (!prepared) {
    return prepared.Error();
  }
  if (options.sap && Announced(options, *prepared).empty()) {
    return UsageFailure("--sap needs a multicast target that is sent, as in rtp://239.1.1.1:5004");
  }
  const PlayPlan& plan = prepared->plan;
  // So that the file repeats this run.
  if (!options.seed && plan.by_schedule) {
    app.get_subcommand("play")->get_option("--seed")->add_result(
        std::to_string(plan.schedule.Seed));
  }
  if (const auto failure = WriteConfig(app, options.write_config)) {
    return *failure;
  }
  if (options.dry_run) {
    PrintDryRun(options, *prepared);
    return static_cast<int>(ExitStatus::kPlayed);
  }
  return Perform(options, *prepared, stop_reading);
}

}  // namespace

void RegisterPlay(CLI::App& app, Result<int>& outcome) {
  CLI::App* command = app.add_subcommand("play", "Play a transport stream");
  const auto options = std::make_shared<PlayOptions>();
  DefinePlayOptions(*command, *options);
  // --config is the application's option, read before the command runs.
  command->fallthrough();
  command->footer(
      "--config FILE reads options, as --write-config wrote them; those on the command "
      "line take precedence.");
  command->callback([options, &app, &outcome] { outcome = Play(app, *options); });
}

}  // namespace ipplay
