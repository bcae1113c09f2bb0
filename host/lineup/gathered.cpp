// SPDX-License-Identifier: MIT
#include "host/lineup/gathered.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <tuple>

#include "host/base/units.h"
#include "host/base/wall_clock.h"
#include "host/lineup/lineup_file.h"

namespace ipplay {
namespace {

using std::chrono::nanoseconds;

Result<std::set<std::string>> ResultFiles(const std::string& folder) {
  std::error_code error;
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.path().extension() == ".json") {
      names.insert(entry.path().filename().string());
    }
  }
  if (error) {
    return UsageFailure(fmt::format("{} cannot be read ({}); give the folder of --results", folder,
                                    error.message()));
  }
  return names;
}

void TakePart(Result<PartResult> part, Gathered& gathered) {
  if (!part) {
    gathered.unusable.push_back(part.Error().message);
  } else if (gathered.of != 0 && part->part.of != gathered.of) {
    gathered.unusable.push_back(
        fmt::format("{}: part {} among parts of {}", part->file, part->part.Text(), gathered.of));
  } else {
    gathered.of = part->part.of;
    gathered.parts.push_back(*std::move(part));
  }
}

void FindMissingParts(Gathered& gathered) {
  for (std::uint32_t number = 1; number <= gathered.of; ++number) {
    gathered.missing_parts.insert(number);
  }
  for (const PartResult& part : gathered.parts) {
    gathered.missing_parts.erase(part.part.number);
  }
}

void TakeChannels(Gathered& gathered) {
  for (const PartResult& part : gathered.parts) {
    for (Json channel : part.channels) {
      channel["part"] = part.part.number;
      channel["machine"] = part.machine;
      gathered.channels.push_back(std::move(channel));
    }
  }
  const auto badness = [](const Json& channel) {
    return std::tuple(HasFailed(channel), NumberAt(channel, kNotSentPath).value_or(0),
                      NumberAt(channel, kLatePath).value_or(0),
                      NumberAt(channel, kLatenessPath).value_or(-1));
  };
  std::ranges::stable_sort(gathered.channels,
                           [&](const Json& a, const Json& b) { return badness(a) > badness(b); });
}

std::optional<Failure> CompareChannels(const std::string& file, Gathered& gathered) {
  const auto lineup = ReadLineup(file);
  if (!lineup) {
    return lineup.Error();
  }
  if (!lineup->mistakes.empty()) {
    return UsageFailure(fmt::format("{}:{}: {}", file, lineup->mistakes.front().line,
                                    lineup->mistakes.front().text));
  }
  std::set<std::string> there;
  for (const Json& channel : gathered.channels) {
    there.insert(TextAt(channel, "/name"));
  }
  for (const PlannedChannel& planned : lineup->channels) {
    if (there.erase(planned.order.name) == 0) {
      gathered.missing_channels.push_back(planned.order.name);
    }
  }
  gathered.foreign_channels.assign(there.begin(), there.end());
  return std::nullopt;
}

std::string Unfinished(const PartResult& part) {
  const std::string where = part.machine.empty() ? "" : " on " + part.machine;
  if (StateOf(part) != "died" || !part.updated_ns) {
    return fmt::format("part {} has not ended{}", part.part.Text(), where);
  }
  return fmt::format("part {} died{}: last heard of {} ago", part.part.Text(), where,
                     FormatDuration(std::chrono::floor<std::chrono::seconds>(
                         WallClockNow() - nanoseconds(*part.updated_ns))));
}

// Its first run, if that broke off.
std::int64_t BeganAt(const PartResult& part) {
  return part.broken_runs.empty() ? part.started_ns.value_or(0)
                                  : part.broken_runs.front().started_ns;
}

// A result that was left in the folder by an earlier run looks as good as one of this run. Parts
// of one run overlap, but for one that was played again for the same start.
void FindEarlierRuns(const Gathered& gathered, std::vector<std::string>& wrong) {
  const auto last = std::ranges::max_element(gathered.parts, {}, BeganAt);
  for (const PartResult& part : gathered.parts) {
    const std::int64_t before = BeganAt(*last) - part.updated_ns.value_or(BeganAt(*last));
    const bool has_same_start = part.start_at_ns && part.start_at_ns == last->start_at_ns;
    if (part.outcome != "running" && before > kDeadAfterNs && !has_same_start) {
      wrong.push_back(fmt::format(
          "part {} ended {} before part {} began: it is of an earlier run", part.part.Text(),
          FormatDuration(std::chrono::floor<std::chrono::seconds>(nanoseconds(before))),
          last->part.Text()));
    }
  }
}

void FindChannelsTwice(const Gathered& gathered, std::vector<std::string>& wrong) {
  std::map<std::string, std::int64_t> seen;
  for (const Json& channel : gathered.channels) {
    const std::int64_t part = NumberAt(channel, "/part").value_or(0);
    const std::string name = TextAt(channel, "/name");
    if (const auto [other, is_new] = seen.emplace(name, part); !is_new && other->second != part) {
      wrong.push_back(fmt::format("{} is in both part {} and part {}", name,
                                  std::min(other->second, part), std::max(other->second, part)));
    }
  }
}

void FindFailedParts(const Gathered& gathered, std::vector<std::string>& wrong) {
  for (const PartResult& part : gathered.parts) {
    if (part.outcome == "failed" && std::ranges::none_of(part.channels, HasFailed)) {
      wrong.push_back(fmt::format("part {} failed on {}", part.part.Text(), part.machine));
    }
  }
}

}  // namespace

Result<Gathered> ReadParts(const std::string& folder, const std::string& lineup) {
  const auto names = ResultFiles(folder);
  if (!names) {
    return names.Error();
  }
  Gathered gathered;
  for (const std::string& name : *names) {
    TakePart(ReadPartResult(folder, name), gathered);
  }
  if (gathered.parts.empty()) {
    return UsageFailure(fmt::format(
        "{} has no result of a lineup; give the folder of `ipplay lineup --results`", folder));
  }
  std::ranges::sort(gathered.parts, {}, [](const PartResult& p) { return p.part.number; });
  FindMissingParts(gathered);
  TakeChannels(gathered);
  if (!lineup.empty()) {
    if (const auto failure = CompareChannels(lineup, gathered)) {
      return *failure;
    }
  }
  return gathered;
}

std::string StateOf(const PartResult& part) {
  const bool is_old = WallClockNow().count() - part.updated_ns.value_or(0) > kDeadAfterNs;
  return part.outcome == "running" && is_old ? "died" : part.outcome;
}

bool HasFailed(const Json& channel) {
  return TextAt(channel, "/state") == "failed" || !TextAt(channel, "/last_error").empty() ||
         NumberAt(channel, kNotSentPath).value_or(0) > 0;
}

std::vector<std::string> FindFailures(const Gathered& gathered) {
  std::vector<std::string> wrong = gathered.unusable;
  for (const std::uint32_t number : gathered.missing_parts) {
    wrong.push_back(fmt::format("part {}/{} is missing", number, gathered.of));
  }
  for (const std::string& name : gathered.missing_channels) {
    wrong.push_back(fmt::format("{} is missing", name));
  }
  for (const std::string& name : gathered.foreign_channels) {
    wrong.push_back(fmt::format("{} is not in the lineup", name));
  }
  std::map<std::uint32_t, std::string> seen;
  for (const PartResult& part : gathered.parts) {
    if (const auto [other, is_new] = seen.emplace(part.part.number, part.file); !is_new) {
      wrong.push_back(
          fmt::format("part {} is in both {} and {}", part.part.Text(), other->second, part.file));
    }
    if (part.outcome != "ended" && part.outcome != "failed") {
      wrong.push_back(Unfinished(part));
    }
  }
  FindEarlierRuns(gathered, wrong);
  FindChannelsTwice(gathered, wrong);
  FindFailedParts(gathered, wrong);
  for (const Json& channel : gathered.channels) {
    if (HasFailed(channel)) {
      wrong.push_back(fmt::format("{} failed", TextAt(channel, "/name")));
    }
  }
  return wrong;
}

std::vector<std::string> FindUnmet(const Gathered& gathered, const GatherLimits& limits) {
  std::vector<std::string> unmet;
  for (const PartResult& part : gathered.parts) {
    const auto& error = part.clock_error_ns;
    if (limits.clock_error && (!error || *error > limits.clock_error->count())) {
      unmet.push_back(fmt::format("part {}: the clock {}", part.part.Text(),
                                  error ? "may be wrong by " + FormatDuration(nanoseconds(*error))
                                        : std::string("is not synchronised")));
    }
  }
  for (const Json& channel : gathered.channels) {
    const auto lateness = NumberAt(channel, kLatenessPath);
    if (limits.lateness && (!lateness || *lateness > limits.lateness->count())) {
      unmet.push_back(fmt::format("{}: lateness {}", TextAt(channel, "/name"),
                                  lateness ? FormatDuration(nanoseconds(*lateness)) + " at 99 %"
                                           : std::string("not known: no frame left")));
    }
  }
  return unmet;
}

}  // namespace ipplay
