// SPDX-License-Identifier: MIT
#include "host/play/play_command.h"

// `ipplay play`.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "host/base/event.h"
#include "host/base/library_output.h"
#include "host/base/text.h"
#include "host/cli/config_file.h"
#include "host/library/destination.h"
#include "host/library/library.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"
#include "host/play/play_session.h"
#include "host/play/report.h"
#include "host/play/way_out.h"
#include "host/stream/open_input.h"

namespace ipplay {
namespace {

Result<Path> FindPath(const PlayOptions& options, const std::vector<Adapter>& adapters) {
  if (!options.into.empty()) {
    return PathIntoFile(options, adapters);
  }
  const auto adapter = options.device.empty() ? AdapterByRoute(adapters, options.to.address)
                                              : FindAdapter(adapters, options.device);
  if (!adapter) {
    return adapter.Error();
  }
  Path path;
  path.adapter = *adapter;
  path.source = SourceAddress(*adapter, options.to.address);
  if (const auto known = DestinationWithoutAsking(*adapter, options.to.address)) {
    path.destination = known->mac;
  }
  return path;
}

// Asks for the destination's MAC address unless the user gave it or it follows from the address.
std::optional<Failure> CompletePath(const PlayOptions& options, Path& path, PlayPlan& plan) {
  if (options.dst_mac || path.destination) {
    return std::nullopt;
  }
  const auto destination = FindDestination(path.adapter, options.to.address);
  if (!destination) {
    return destination.Error();
  }
  path.destination = destination->mac;
  for (IPPlayParams* params : {&plan.settings.params, &plan.schedule.Params}) {
    std::memcpy(params->ProtocolHeadersSettings.EthernetHeaderSettings.DestinationMacAddress,
                destination->mac.data(), destination->mac.size());
  }
  return std::nullopt;
}

void PrintDryRun(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan,
                 const Path& path, Input& input) {
  std::vector<std::uint8_t> payload(plan.sizes.payload_bytes);
  payload.resize(input.ReadFully(payload));
  if (plan.rounds.restamp) {
    const std::size_t unit = facts.format.packet_bytes;
    std::vector<std::uint8_t> restamped;
    Restamper(facts.format, *plan.rounds.restamp)
        .Run(std::span(payload).first(payload.size() / unit * unit), [&](Restamper::Bytes bytes) {
          restamped.insert(restamped.end(), bytes.begin(), bytes.end());
          return true;
        });
    restamped.resize(std::min(restamped.size(), payload.size()));
    std::copy(restamped.begin(), restamped.end(), payload.begin());
  }
  Print(Results(), "{}", DryRun(options, facts, plan, path, payload));
}

void Introduce(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan,
               const Adapter& adapter) {
  if (!options.quiet) {
    Print(stderr, "{}", Introduction(options, facts, plan, adapter.name));
  }
  for (const std::string& note : plan.notes) {
    Print(stderr, "ipplay: note: {}\n", note);
  }
}

InputOptions InputOptionsOf(const PlayOptions& options) {
  return {.raw = options.raw,
          .flow = options.flow,
          .follow = options.follow,
          .silence = options.silence};
}

TimeSpan WindowOf(const PlayOptions& options) {
  const auto ticks = [](std::chrono::nanoseconds time) {
    return static_cast<std::uint64_t>(time.count() / 1000 * 27);
  };
  TimeSpan window{.from = ticks(options.from.value_or(std::chrono::nanoseconds(0)))};
  if (options.duration) {
    window.until = window.from + ticks(*options.duration);
  }
  return window;
}

ExamineOptions ExamineOptionsOf(const PlayOptions& options) {
  ExamineOptions examine{
      .raw = options.raw, .want_rate = !options.bit_rate && !options.frame_bit_rate, .pcr_pid = {}};
  if (options.restamp || options.near_wrap) {
    examine.want_rate = true;
    examine.whole = options.rounds != 1;  // the seams follow from the length
  }
  if (options.program) {
    examine.program = static_cast<std::uint16_t>(*options.program);
  }
  if (options.from || options.duration) {
    examine.window = WindowOf(options);
  }
  if (options.pcr_pid) {
    examine.pcr_pid = static_cast<std::uint16_t>(*options.pcr_pid);
  }
  return examine;
}

// What is known at the start of an input that was read to its end.
void NoteInput(const Input& input, PlayPlan& plan) {
  if (input.Size()) {
    const auto notes = input.Notes();
    plan.notes.insert(plan.notes.end(), notes.begin(), notes.end());
  }
}

// Only the command line replaces files.
std::optional<Failure> CheckFile(const CLI::App& app, const PlayOptions& options) {
  const CLI::App& command = *app.get_subcommand("play");
  const bool is_from_file = IsFromFile(app, command, "--into") || IsFromFile(app, command, "--to");
  if (!options.into.empty() && is_from_file && std::filesystem::exists(options.into)) {
    return UsageFailure(fmt::format(
        "{} exists, and a configuration file replaces no other file; give it with --into",
        QuotedLine(options.into)));
  }
  return std::nullopt;
}

Result<int> Play(const CLI::App& app, const PlayOptions& options) {
  if (auto failure = CheckFile(app, options)) {
    return *std::move(failure);
  }
  const Library library;
  auto path = FindPath(options, library.Adapters());
  if (!path) {
    return path.Error();
  }
  const Event stop_reading;
  auto input = OpenInput(options.input, InputOptionsOf(options), stop_reading.Get());
  if (!input) {
    return input.Error();
  }
  const auto facts = Examine(*input, ExamineOptionsOf(options));
  if (!facts) {
    return facts.Error();
  }
  auto plan = MakePlan(options, *facts, *path);
  if (!plan) {
    return plan.Error();
  }
  if (const auto failure = ChooseWay(options, *path, library.Adapters(), *plan)) {
    return *failure;
  }
  NoteInput(*input, *plan);
  if (const auto failure = WriteConfig(app, options.write_config)) {
    return *failure;
  }
  if (options.dry_run) {
    PrintDryRun(options, *facts, *plan, *path, *input);
    return static_cast<int>(ExitStatus::kPlayed);
  }
  if (plan->schedule.To == IPPLAYOUT_TO_ADAPTER) {
    if (const auto failure = CompletePath(options, *path, *plan)) {
      return *failure;
    }
  }
  Introduce(options, *facts, *plan, path->adapter);
  PlaySession session(options, *plan, std::make_unique<RoundReader>(std::move(*input), *facts),
                      stop_reading);
  return static_cast<int>(session.Run());
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
