// SPDX-License-Identifier: MIT
#include "host/lineup/lineup_run.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>

#include "host/base/capabilities.h"
#include "host/base/library_output.h"
#include "host/base/machine.h"
#include "host/base/output_file.h"
#include "host/base/service_manager.h"
#include "host/base/signal_event.h"
#include "host/base/stop_signals.h"
#include "host/base/units.h"
#include "host/base/wall_clock.h"
#include "host/library/library.h"
#include "host/lineup/engine.h"
#include "host/lineup/lineup_file.h"
#include "host/lineup/lineup_report.h"
#include "host/lineup/part_result.h"
#include "host/measure/results/live_view.h"
#include "host/play/preparation.h"
#include "host/stream/live_source.h"

namespace ipplay {
namespace {

using Clock = std::chrono::steady_clock;
using Channels = std::vector<std::shared_ptr<Channel>>;

constexpr auto kRedraw = std::chrono::seconds(1);
constexpr auto kRewriteResult = std::chrono::seconds(5);

Result<Lineup> Read(const LineupOptions& options) {
  auto lineup = ReadLineup(options.file);
  if (lineup && options.part) {
    std::erase_if(lineup->channels, [&options](const PlannedChannel& planned) {
      return !options.part->Has(planned.order.name);
    });
  }
  if (lineup && options.start_at) {
    for (PlannedChannel& planned : lineup->channels) {
      planned.order.start_at = options.start_at;
    }
  }
  return lineup;
}

Failure MistakesIn(const std::string& file, const std::vector<Mistake>& mistakes) {
  Failure failure = UsageFailure(
      fmt::format("{}: {}; nothing was sent", file, FormatCount(mistakes.size(), "mistake")));
  for (const Mistake& mistake : mistakes) {
    failure.details.push_back(fmt::format("{}:{}: {}", file, mistake.line, mistake.text));
  }
  return failure;
}

// Looks at the way to the target, and at the input if it is there.
void CheckChannel(const PlannedChannel& planned, const std::vector<Adapter>& adapters,
                  std::vector<Mistake>& mistakes) {
  const auto parsed = ParseChannelOptions(planned.order.options);
  const auto* const options = std::get_if<PlayOptions>(&parsed);
  if (options == nullptr) {
    return;
  }
  std::optional<Failure> failure;
  if (ComesAtItsOwnPace(*options)) {
    failure = CheckWithoutInput(*options, adapters);
  } else if (const auto prepared = Prepare(*options, adapters, -1); !prepared) {
    failure = prepared.Error();
  }
  if (failure) {
    mistakes.push_back({planned.line, fmt::format("{}: {}", planned.order.name, failure->message)});
  }
}

LineupFacts FactsAtStart(const LineupOptions& options, std::vector<BrokenRun> broken_runs) {
  LineupFacts facts;
  facts.file = options.file;
  facts.part = options.part;
  facts.machine = NameOfMachine();
  if (options.start_at) {
    facts.start_at_ns = options.start_at->count();
  }
  facts.started_ns = WallClockNow().count();
  facts.broken_runs = std::move(broken_runs);
  return facts;
}

// One lineup while it runs. On the main thread; the channels' events come on others.
class LineupSession {
 public:
  LineupSession(const LineupOptions& options, std::vector<Adapter> adapters,
                std::optional<OutputFile> result, std::vector<BrokenRun> broken_runs,
                const SignalEvent& reload)
      : options_(options),
        result_(std::move(result)),
        reload_(reload),
        facts_(FactsAtStart(options, std::move(broken_runs))),
        view_(!options.quiet && !options.json),
        engine_(std::move(adapters), [this](const ChannelEvent& event) { Take(event); }) {
    // This thread keeps what rereading the file and writing results for their owner takes.
    KeepCapabilities({kCapChown, kCapDacOverride, kCapFowner});
  }

  Result<int> Run(const Lineup& lineup) {
    Channels added;
    for (const PlannedChannel& planned : lineup.channels) {
      auto channel = engine_.Add(planned.order);
      if (!channel) {
        return channel.Error();
      }
      added.push_back(*channel);
    }
    if (const auto failure = WriteResult("running")) {
      return *failure;
    }
    StartTogether(added);
    NotifyServiceManager("READY=1");
    Loop();
    NotifyServiceManager("STOPPING=1");
    const auto all = engine_.List();
    engine_.Stop(all);
    return Conclude();
  }

 private:
  // Those with the same time start at the same moment.
  void StartTogether(const Channels& channels) {
    std::map<std::optional<std::chrono::nanoseconds>, Channels> groups;
    for (const auto& channel : channels) {
      groups[channel->Order().start_at].push_back(channel);
    }
    for (const auto& [start_at, group] : groups) {
      std::optional<Engine::Time> at;
      if (start_at) {
        const auto left = *start_at - WallClockNow();
        if (left < Engine::Time(0)) {
          Say(fmt::format("the time of the start was {} ago; starting {} at once",
                          FormatDuration(-left), FormatCount(group.size(), "channel")));
        }
        at = FromWallClock(*start_at);
      }
      engine_.Start(group, at);
    }
  }

  void Loop() {
    const auto watchdog = WatchdogInterval();
    const auto wake = std::min<std::chrono::milliseconds>(
        kRedraw, watchdog ? std::chrono::duration_cast<std::chrono::milliseconds>(*watchdog)
                          : std::chrono::milliseconds(kRedraw));
    auto rewrite = Clock::now() + kRewriteResult;
    while (StopSignals::Came() == 0 && !AllHaveEnded()) {
      std::array<pollfd, 2> waits{{{StopSignals::Fd(), POLLIN, 0}, {reload_.Get(), POLLIN, 0}}};
      ::poll(waits.data(), waits.size(), static_cast<int>(std::max<long>(wake.count(), 1)));
      NotifyServiceManager("WATCHDOG=1");
      if (reload_.Take()) {
        Reload();
      }
      if (Clock::now() >= rewrite) {
        WriteResult("running");
        rewrite = Clock::now() + kRewriteResult;
      }
      Draw();
    }
  }

  bool AllHaveEnded() const {
    return std::ranges::none_of(engine_.List(), [](const auto& channel) {
      const ChannelState state = channel->Status().state;
      return state == ChannelState::kPlaying || state == ChannelState::kPaused ||
             state == ChannelState::kWaiting;
    });
  }

  // What did not change plays on untouched.
  void Reload() {
    NotifyServiceManager("RELOADING=1");
    const auto lineup = Read(options_);
    if (!lineup || !lineup->mistakes.empty()) {
      const Failure failure = lineup ? MistakesIn(options_.file, lineup->mistakes) : lineup.Error();
      Say(fmt::format("not reloaded: {}", failure.message));
      for (const std::string& line : failure.details) {
        Say(line);
      }
    } else {
      Exchange(*lineup);
    }
    NotifyServiceManager("READY=1");
  }

  void Exchange(const Lineup& lineup) {
    std::map<std::string, const ChannelOrder*> wanted;
    for (const PlannedChannel& planned : lineup.channels) {
      wanted[planned.order.name] = &planned.order;
    }
    std::size_t removed = 0;
    std::size_t kept = 0;
    for (const auto& channel : engine_.List()) {
      const auto order = wanted.find(channel->Order().name);
      if (order != wanted.end() && channel->Order().IsSameAs(*order->second)) {
        wanted.erase(order);
        ++kept;
      } else {
        engine_.Remove(channel->Order().name);
        ++removed;
      }
    }
    Channels added;
    for (const PlannedChannel& planned : lineup.channels) {
      if (wanted.contains(planned.order.name)) {
        if (const auto channel = engine_.Add(planned.order)) {
          added.push_back(*channel);
        }
      }
    }
    StartTogether(added);
    Say(fmt::format("reloaded: {} untouched, {} ended, {} begun", kept, removed, added.size()));
  }

  void Take(const ChannelEvent& event) {
    if (event.state == ChannelState::kFailed || event.state == ChannelState::kWaiting) {
      Say(fmt::format("{}: {}", event.channel, event.text));
    }
  }

  void Say(const std::string& line) {
    const std::lock_guard lock(output_);
    view_.Draw("");
    Print(stderr, "ipplay: {}\n", line);
  }

  void Draw() {
    constexpr std::size_t kOtherLines = 4;
    if (!view_.IsShown()) {
      return;
    }
    auto statuses = Statuses();
    SortWorstFirst(statuses);
    const std::size_t rows = std::max(view_.Rows(), kOtherLines + 1) - kOtherLines;
    const std::lock_guard lock(output_);
    view_.Draw(LineupTable(statuses, rows));
  }

  std::vector<ChannelStatus> Statuses() const {
    std::vector<ChannelStatus> statuses;
    for (const auto& channel : engine_.List()) {
      statuses.push_back(channel->Status());
    }
    return statuses;
  }

  std::string Json(std::string_view outcome, std::span<const ChannelStatus> statuses) {
    facts_.updated_ns = WallClockNow().count();
    facts_.clock_error_ns = LargestClockErrorNs();
    return LineupJson(facts_, outcome, statuses);
  }

  std::optional<Failure> WriteResult(std::string_view outcome) {
    return result_ ? result_->Commit(Json(outcome, Statuses()) + "\n") : std::nullopt;
  }

  Result<int> Conclude() {
    auto statuses = Statuses();
    SortWorstFirst(statuses);
    const bool failed = std::ranges::any_of(statuses, HasFailed);
    const std::string_view outcome = failed ? "failed" : "ended";
    const auto unwritten = WriteResult(outcome);
    view_.Draw("");
    if (options_.json) {
      Print(Results(), "{}\n", Json(outcome, statuses));
    } else {
      Print(Results(), "{}", LineupTable(statuses, statuses.size()));
    }
    if (unwritten) {
      return *unwritten;
    }
    return static_cast<int>(failed ? ExitStatus::kFailed : ExitStatus::kPlayed);
  }

  const LineupOptions& options_;
  const std::optional<OutputFile> result_;
  const SignalEvent& reload_;
  LineupFacts facts_;
  std::mutex output_;  // guards view_ and standard error
  measure::LiveView view_;
  Engine engine_;
};

// What the rest of a run cannot be without.
Result<std::optional<OutputFile>> ResultFile(const LineupOptions& options) {
  if (options.results.empty()) {
    return std::optional<OutputFile>();
  }
  const Part part = options.part.value_or(Part{});
  auto file =
      OutputFile::Create("--results", fmt::format("{}/{}", options.results, PartFileName(part)));
  if (!file) {
    return file.Error();
  }
  return std::optional<OutputFile>(std::move(*file));
}

}  // namespace

Result<int> CheckLineup(const LineupOptions& options) {
  auto lineup = Read(options);
  if (!lineup) {
    return lineup.Error();
  }
  const Library library;
  for (const PlannedChannel& planned : lineup->channels) {
    CheckChannel(planned, library.Adapters(), lineup->mistakes);
  }
  if (!lineup->mistakes.empty()) {
    std::ranges::sort(lineup->mistakes);
    return MistakesIn(options.file, lineup->mistakes);
  }
  Print(Results(), "{}: {}, nothing wrong\n", options.file,
        FormatCount(lineup->channels.size(), "channel"));
  return static_cast<int>(ExitStatus::kPlayed);
}

Result<int> RunLineup(const LineupOptions& options) {
  const auto lineup = Read(options);
  if (!lineup) {
    return lineup.Error();
  }
  if (!lineup->mistakes.empty()) {
    return MistakesIn(options.file, lineup->mistakes);
  }
  auto result = ResultFile(options);
  if (!result) {
    return result.Error();
  }
  auto broken_runs = *result ? BrokenRunsBefore(options.results, options.part.value_or(Part{}))
                             : std::vector<BrokenRun>();
  if (const auto missing = MissingRightToSend()) {
    return Failure{ExitStatus::kNoAccess, *missing};
  }
  StopSignals::Take();
  const SignalEvent reload(SIGHUP);  // before the library starts threads
  const Library library;
  LineupSession session(options, library.Adapters(), std::move(*result), std::move(broken_runs),
                        reload);
  return session.Run(*lineup);
}

}  // namespace ipplay
