// SPDX-License-Identifier: MIT
#include "host/lineup/gather.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>
#include <vector>

#include "host/base/library_output.h"
#include "host/base/text.h"
#include "host/base/units.h"
#include "host/lineup/lineup_report.h"
#include "host/measure/measure_run.h"

namespace ipplay {
namespace {

using Json = nlohmann::ordered_json;
using std::chrono::nanoseconds;

// A part writes its result anew every 10 s. Clocks may differ.
constexpr std::int64_t kDeadAfterNs = 60'000'000'000;

struct PartResult {
  Part part;
  std::string file;
  std::string state;  // "ended", "failed", "running" or "died"
  Json document;
};

struct Gathered {
  std::vector<PartResult> parts;      // by number
  std::vector<std::string> unusable;  // files, with what is wrong
  std::set<std::uint32_t> missing;
  std::uint32_t of = 0;
};

std::int64_t SystemNow() {
  return std::chrono::duration_cast<nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The document, or what is wrong with it.
Result<PartResult> ReadPart(const std::filesystem::path& path) {
  std::ifstream file(path);
  PartResult result{{}, path.filename().string(), "", Json::parse(file, nullptr, false)};
  const Json& document = result.document;
  const Failure unusable{ExitStatus::kFailed,
                         fmt::format("{}: no result of a lineup", result.file)};
  if (!document.is_object() || document.value("schema", 0) != kLineupSchema ||
      !document.contains("channels") || !document["channels"].is_array() ||
      !document.contains("part")) {
    return unusable;
  }
  const Json& part = document["part"];
  if (part.is_object()) {
    result.part = {part.value("number", 0U), part.value("of", 0U)};
  }
  const auto& [number, of] = result.part;
  if (of == 0 || of > kMostParts || number == 0 || number > of) {
    return unusable;
  }
  result.state = document.value("outcome", "");
  const bool is_old = SystemNow() - document.value("updated_ns", std::int64_t{0}) > kDeadAfterNs;
  if (result.state == "running" && is_old) {
    result.state = "died";
  }
  return result;
}

Result<Gathered> ReadParts(const std::string& folder) {
  Gathered gathered;
  std::error_code error;
  std::set<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.path().extension() == ".json") {
      paths.insert(entry.path());
    }
  }
  if (error) {
    return UsageFailure(fmt::format("{} cannot be read ({}); give the folder of --results", folder,
                                    error.message()));
  }
  for (const auto& path : paths) {
    auto part = ReadPart(path);
    if (!part) {
      gathered.unusable.push_back(part.Error().message);
    } else if (gathered.of != 0 && part->part.of != gathered.of) {
      gathered.unusable.push_back(
          fmt::format("{}: part {} among parts of {}", part->file, part->part.Text(), gathered.of));
    } else {
      gathered.of = part->part.of;
      gathered.parts.push_back(std::move(*part));
    }
  }
  if (gathered.parts.empty()) {
    return UsageFailure(fmt::format(
        "{} has no result of a lineup; give the folder of `ipplay lineup --results`", folder));
  }
  std::ranges::sort(gathered.parts, {}, [](const PartResult& p) { return p.part.number; });
  for (std::uint32_t number = 1; number <= gathered.of; ++number) {
    gathered.missing.insert(number);
  }
  for (const PartResult& part : gathered.parts) {
    gathered.missing.erase(part.part.number);
  }
  return gathered;
}

// A number below `path`, or none where it is null or missing.
std::optional<std::int64_t> NumberAt(const Json& json, const char* path) {
  const Json::json_pointer pointer(path);
  if (!json.contains(pointer) || !json[pointer].is_number_integer()) {
    return std::nullopt;
  }
  return json[pointer].get<std::int64_t>();
}

std::string TextAt(const Json& json, const char* name) {
  return json.contains(name) && json[name].is_string() ? json[name].get<std::string>() : "";
}

constexpr const char* kLateness = "/departures/lateness_ns/p99";
constexpr const char* kNotSent = "/departures/not_sent";

bool HasFailed(const Json& channel) {
  return TextAt(channel, "state") == "failed" || !TextAt(channel, "last_error").empty() ||
         NumberAt(channel, kNotSent).value_or(0) > 0;
}

// All channels with the part that had them, the worst first.
std::vector<Json> Channels(const Gathered& gathered) {
  std::vector<Json> channels;
  for (const PartResult& part : gathered.parts) {
    for (Json channel : part.document["channels"]) {
      if (channel.is_object()) {
        channel["part"] = part.part.number;
        channel["machine"] = TextAt(part.document, "machine");
        channels.push_back(std::move(channel));
      }
    }
  }
  const auto badness = [](const Json& channel) {
    return std::tuple(HasFailed(channel), NumberAt(channel, kNotSent).value_or(0),
                      NumberAt(channel, "/departures/late").value_or(0),
                      NumberAt(channel, kLateness).value_or(-1));
  };
  std::ranges::stable_sort(channels,
                           [&](const Json& a, const Json& b) { return badness(a) > badness(b); });
  return channels;
}

// Parts and channels that are missing or have failed.
std::vector<std::string> FindFailures(const Gathered& gathered, const std::vector<Json>& channels) {
  std::vector<std::string> wrong = gathered.unusable;
  for (const std::uint32_t number : gathered.missing) {
    wrong.push_back(fmt::format("part {}/{} is missing", number, gathered.of));
  }
  std::map<std::uint32_t, std::string> seen;
  for (const PartResult& part : gathered.parts) {
    if (const auto [other, is_new] = seen.emplace(part.part.number, part.file); !is_new) {
      wrong.push_back(
          fmt::format("part {} stands in {} and {}", part.part.Text(), other->second, part.file));
    }
    if (part.state != "ended" && part.state != "failed") {
      wrong.push_back(fmt::format("part {} {}", part.part.Text(),
                                  part.state == "died" ? "died" : "has not ended"));
    }
  }
  for (const Json& channel : channels) {
    if (HasFailed(channel)) {
      wrong.push_back(fmt::format("{} failed", TextAt(channel, "name")));
    }
  }
  return wrong;
}

// A limit is not met by what is not known.
std::vector<std::string> FindUnmet(const GatherOptions& options, const Gathered& gathered,
                                   const std::vector<Json>& channels) {
  std::vector<std::string> unmet;
  for (const PartResult& part : gathered.parts) {
    const auto error = NumberAt(part.document, "/clock_error_ns");
    if (options.most_clock_error && (!error || *error > options.most_clock_error->count())) {
      unmet.push_back(fmt::format("part {}: the clock {}", part.part.Text(),
                                  error ? "may be wrong by " + FormatDuration(nanoseconds(*error))
                                        : std::string("is not kept right")));
    }
  }
  for (const Json& channel : channels) {
    const auto lateness = NumberAt(channel, kLateness);
    if (options.most_lateness && (!lateness || *lateness > options.most_lateness->count())) {
      unmet.push_back(fmt::format("{}: lateness {}", TextAt(channel, "name"),
                                  lateness ? FormatDuration(nanoseconds(*lateness)) + " at 99 %"
                                           : std::string("not known: no frame left")));
    }
  }
  return unmet;
}

std::string AsJson(const Gathered& gathered, const std::vector<Json>& channels,
                   const std::vector<std::string>& wrong) {
  Json json{{"schema", kLineupSchema},
            {"outcome", wrong.empty() ? "ended" : "failed"},
            {"wrong", wrong},
            {"missing_parts", gathered.missing},
            {"parts", Json::array()}};
  for (const PartResult& part : gathered.parts) {
    json["parts"].push_back({{"number", part.part.number},
                             {"of", part.part.of},
                             {"state", part.state},
                             {"machine", TextAt(part.document, "machine")},
                             {"clock_error_ns", part.document.value("clock_error_ns", Json())},
                             {"started_ns", part.document.value("started_ns", Json())},
                             {"updated_ns", part.document.value("updated_ns", Json())},
                             {"channels", part.document["channels"].size()}});
  }
  json["channels"] = channels;
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Time(const std::optional<std::int64_t>& ns) {
  return ns ? FormatDuration(nanoseconds(*ns)) : "-";
}

std::string AsTable(const Gathered& gathered, const std::vector<Json>& channels,
                    const std::vector<std::string>& wrong) {
  std::string text = fmt::format("{:<8} {:<20} {:<8} {:>9} {:>12}\n", "part", "machine", "state",
                                 "channels", "clock error");
  for (const PartResult& part : gathered.parts) {
    fmt::format_to(std::back_inserter(text), "{:<8} {:<20} {:<8} {:>9} {:>12}\n", part.part.Text(),
                   QuotedLine(TextAt(part.document, "machine")), part.state,
                   part.document["channels"].size(),
                   Time(NumberAt(part.document, "/clock_error_ns")));
  }
  fmt::format_to(std::back_inserter(text), "\n{:<20} {:<8} {:<20} {:>10} {:>8} {:>8}  {}\n",
                 "channel", "state", "machine", "late p99", "late", "not sent", "error");
  for (const Json& channel : channels) {
    const auto count = [&channel](const char* path) {
      const auto number = NumberAt(channel, path);
      return number ? fmt::format("{}", *number) : std::string("-");
    };
    fmt::format_to(std::back_inserter(text), "{:<20} {:<8} {:<20} {:>10} {:>8} {:>8}  {}\n",
                   QuotedLine(TextAt(channel, "name")), QuotedLine(TextAt(channel, "state")),
                   QuotedLine(TextAt(channel, "machine")), Time(NumberAt(channel, kLateness)),
                   count("/departures/late"), count(kNotSent),
                   QuotedLine(TextAt(channel, "last_error")));
  }
  text += wrong.empty() ? "\nNothing is wrong\n" : "\nWrong:\n";
  for (const std::string& line : wrong) {
    text += fmt::format("  {}\n", QuotedLine(line));
  }
  return text;
}

}  // namespace

Result<int> Gather(const GatherOptions& options) {
  const auto gathered = ReadParts(options.folder);
  if (!gathered) {
    return gathered.Error();
  }
  const auto channels = Channels(*gathered);
  auto wrong = FindFailures(*gathered, channels);
  const auto unmet = FindUnmet(options, *gathered, channels);
  const bool failed = !wrong.empty();
  wrong.insert(wrong.end(), unmet.begin(), unmet.end());
  Print(Results(), "{}{}",
        options.json ? AsJson(*gathered, channels, wrong) : AsTable(*gathered, channels, wrong),
        options.json ? "\n" : "");
  if (failed) {
    return static_cast<int>(ExitStatus::kFailed);
  }
  return unmet.empty() ? static_cast<int>(ExitStatus::kPlayed) : measure::kLimitsNotMet;
}

}  // namespace ipplay
