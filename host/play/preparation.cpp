// SPDX-License-Identifier: MIT
#include "host/play/preparation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <span>

#include "host/library/destination.h"
#include "host/play/given_option.h"
#include "host/play/plan_rates.h"
#include "host/play/way_out.h"
#include "host/stream/live_source.h"
#include "host/stream/open_input.h"
#include "host/stream/stream_editor.h"
#include "host/stream/stream_list.h"

namespace ipplay {
namespace {

Result<Path> FindPath(const PlayOptions& options, const std::vector<Adapter>& adapters) {
  if (!options.into.empty()) {
    return PathIntoFile(options, adapters);
  }
  const auto adapter = ChooseAdapter(adapters, options.device, options.to);
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
  ExamineOptions examine{.raw = options.raw, .pcr_pid = {}};
  if (options.restamp || options.near_wrap) {
    examine.whole = options.rounds != 1;  // the seams follow from the length
  }
  examine.whole = examine.whole || options.keep_losses;
  // Where a rate is given, PCRs are not waited for as long as they might come.
  if (options.bit_rate || options.frame_bit_rate) {
    constexpr std::size_t kEnough = std::size_t{1} << 20;
    examine.most_read_ahead = kEnough;
  }
  examine.read_ahead = ReadAhead(options, IsLiveAddress(options.input));
  if (options.program) {
    examine.filter.program = static_cast<std::uint16_t>(*options.program);
  }
  examine.filter.pids = options.pids;
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

Result<Opened> Open(const PlayOptions& options, const std::string& name, int stop_fd) {
  auto input = OpenInput(name, InputOptionsOf(options), stop_fd);
  if (!input) {
    return input.Error();
  }
  auto facts = Examine(*input, ExamineOptionsOf(options));
  if (!facts) {
    return facts.Error();
  }
  return Opened{std::move(*input), *std::move(facts)};
}

std::optional<Failure> CheckList(const PlayOptions& options) {
  const GivenOption kOptions[] = {{"--raw", options.raw},
                                  {"--from", options.from.has_value()},
                                  {"--duration", options.duration.has_value()},
                                  {"--follow", options.follow},
                                  {"--timing capture", options.by_arrival}};
  if (const auto option = FirstGiven(kOptions)) {
    return UsageFailure(
        fmt::format("{} needs a single INPUT, and {} are given", *option, options.then.size() + 1));
  }
  const auto once = [](const std::string& name) { return name == "-" || IsLiveAddress(name); };
  const auto not_file = std::find_if(options.then.begin(), options.then.end(), once);
  if (once(options.input) || not_file != options.then.end()) {
    return UsageFailure(
        fmt::format("INPUT: {} can be read only once, and inputs in a row are files; give it alone",
                    once(options.input) ? options.input : *not_file));
  }
  return std::nullopt;
}

// What is random is the same as at the first target.
Result<Output> PrepareFurther(const PlayOptions& options, const PlayOptions::Place& place,
                              const std::vector<Adapter>& adapters, const Prepared& first) {
  PlayOptions own = options;
  own.to = place.to;
  own.into = place.into;
  own.also_to.clear();
  own.ledger.clear();
  if (!own.into.empty()) {
    own.start_at.reset();  // the times in a file count from the start
  }
  own.seed = first.plan.schedule.Seed;
  auto path = FindPath(own, adapters);
  if (!path) {
    return path.Error();
  }
  auto plan = MakePlan(own, first.facts, *path);
  if (!plan) {
    return plan.Error();
  }
  if (const auto failure = ChooseWay(own, *path, adapters, *plan)) {
    return *failure;
  }
  if (!plan->by_schedule || !first.plan.by_schedule) {
    return UsageFailure(
        "--to: several targets need frames that are paced one by one: give at most 65,536 "
        "--copies, a rate with at least 5 us between frames, and no --priority");
  }
  return Output{std::move(own), *std::move(path), *std::move(plan)};
}

std::optional<Failure> PrepareTwin(const PlayOptions& options, const std::vector<Adapter>& adapters,
                                   Prepared& prepared) {
  TwinPath twin{TwinOptions(options, prepared.plan.schedule.Seed), {}, {}};
  auto path = FindPath(twin.options, adapters);
  if (!path) {
    return path.Error();
  }
  twin.path = std::move(*path);
  auto plan = MakePlan(twin.options, prepared.facts, twin.path);
  if (!plan) {
    return plan.Error();
  }
  twin.plan = std::move(*plan);
  if (auto failure = ChooseWay(twin.options, twin.path, adapters, twin.plan)) {
    return failure;
  }
  if (auto failure = MakeTwins(prepared.plan, twin)) {
    return failure;
  }
  prepared.twin = std::move(twin);
  return std::nullopt;
}

}  // namespace

bool ComesAtItsOwnPace(const PlayOptions& options) {
  using std::filesystem::file_type;
  std::error_code error;
  const file_type type = std::filesystem::status(options.input, error).type();
  return options.follow || options.input == "-" || IsLiveAddress(options.input) ||
         type == file_type::fifo || type == file_type::character;
}

std::optional<Failure> CheckWithoutInput(const PlayOptions& options,
                                         const std::vector<Adapter>& adapters) {
  if (auto failure = CheckTwin(options)) {
    return failure;
  }
  if (auto failure = CheckLiveInput(options.input)) {
    return failure;
  }
  const auto path = FindPath(options, adapters);
  return path ? std::nullopt : std::optional(path.Error());
}

// All of a list, before anything is sent.
Result<Opened> LookAtInput(const PlayOptions& options, int stop_fd) {
  if (options.then.empty()) {
    return Open(options, options.input, stop_fd);
  }
  if (auto failure = CheckList(options)) {
    return *std::move(failure);
  }
  auto first = Open(options, options.input, stop_fd);
  if (!first) {
    return first.Error();
  }
  std::vector<ListedStream> list{{options.input, first->facts}};
  for (const std::string& name : options.then) {
    auto next = Open(options, name, stop_fd);
    if (!next) {
      return next.Error();
    }
    list.push_back({name, next->facts});
    first->then.push_back({std::move(next->input), std::move(next->facts)});
  }
  auto together = FactsOfList(std::move(list), options.as_188);
  if (!together) {
    return together.Error();
  }
  first->facts = *std::move(together);
  return first;
}

Result<Prepared> Prepare(const PlayOptions& options, const std::vector<Adapter>& adapters,
                         int stop_fd) {
  if (auto failure = CheckWithoutInput(options, adapters)) {
    return *std::move(failure);
  }
  auto opened = LookAtInput(options, stop_fd);
  if (!opened) {
    return opened.Error();
  }
  return Prepare(options, adapters, std::move(*opened));
}

Result<Prepared> Prepare(const PlayOptions& options, const std::vector<Adapter>& adapters,
                         Opened&& opened) {
  auto path = FindPath(options, adapters);
  if (!path) {
    return path.Error();
  }
  auto plan = MakePlan(options, opened.facts, *path);
  if (!plan) {
    return plan.Error();
  }
  if (const auto failure = ChooseWay(options, *path, adapters, *plan)) {
    return *failure;
  }
  NoteInput(opened.input, *plan);
  for (const RoundReader::Stream& next : opened.then) {
    NoteInput(next.input, *plan);
  }
  Prepared prepared{std::move(*path), std::move(opened.facts), *std::move(plan),
                    std::move(opened.input)};
  prepared.then = std::move(opened.then);
  for (const PlayOptions::Place& place : options.also_to) {
    auto output = PrepareFurther(options, place, adapters, prepared);
    if (!output) {
      return output.Error();
    }
    prepared.further.push_back(*std::move(output));
  }
  if (options.twin) {
    if (auto failure = PrepareTwin(options, adapters, prepared)) {
      return *std::move(failure);
    }
  }
  return prepared;
}

std::unique_ptr<RoundReader> MakeReader(Prepared&& prepared) {
  const auto& list = prepared.facts.list;
  if (list.empty()) {
    return std::make_unique<RoundReader>(std::move(prepared.input), prepared.facts);
  }
  std::vector<RoundReader::Stream> streams;
  streams.push_back({std::move(prepared.input), list.front().facts});
  std::move(prepared.then.begin(), prepared.then.end(), std::back_inserter(streams));
  return std::make_unique<RoundReader>(std::move(streams));
}

std::optional<Failure> CompletePath(const PlayOptions& options, Path& path, PlayPlan& plan) {
  if (plan.schedule.To != IPPLAYOUT_TO_ADAPTER || options.dst_mac || path.destination) {
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

std::vector<std::uint8_t> FirstPayload(const PlayPlan& plan, const StreamFacts& facts,
                                       Input& input) {
  std::vector<std::uint8_t> payload(plan.sizes.payload_bytes);
  payload.resize(input.ReadFully(payload));
  if (facts.format.IsRaw()) {
    return payload;
  }
  const std::size_t unit = facts.format.packet_bytes;
  const std::size_t whole = payload.size() / unit * unit;
  std::vector<std::uint8_t> edited;
  const auto append = [&edited](StreamEditor::Bytes bytes) {
    edited.insert(edited.end(), bytes.begin(), bytes.end());
    return true;
  };
  StreamEditor editor(facts.format, plan.edits);
  editor.Run(std::span(payload).first(whole), append);
  editor.Finish(append);
  edited.insert(edited.end(), payload.begin() + static_cast<std::ptrdiff_t>(whole), payload.end());
  edited.resize(std::min<std::size_t>(edited.size(), plan.sizes.payload_bytes));
  return edited;
}

}  // namespace ipplay
