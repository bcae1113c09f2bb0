// SPDX-License-Identifier: MIT
#include "host/lineup/part_result.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

namespace ipplay {
namespace {

// A part that is started over and over need not remember all of it.
constexpr std::size_t kMostBrokenRuns = 16;

constexpr std::int64_t kLargestNumber = std::int64_t{1} << 62;

std::optional<Part> PartOf(const Json& document) {
  if (document["part"].is_null()) {
    return Part{};
  }
  const auto number = NumberAt(document, "/part/number");
  const auto of = NumberAt(document, "/part/of");
  if (!number || !of || *of < 1 || *of > kMostParts || *number < 1 || *number > *of) {
    return std::nullopt;
  }
  return Part{static_cast<std::uint32_t>(*number), static_cast<std::uint32_t>(*of)};
}

std::vector<BrokenRun> BrokenRunsOf(const Json& document) {
  std::vector<BrokenRun> runs;
  if (document.contains("broken_runs") && document["broken_runs"].is_array()) {
    for (const Json& run : document["broken_runs"]) {
      runs.push_back({TextAt(run, "/machine"), NumberAt(run, "/started_ns").value_or(0),
                      NumberAt(run, "/updated_ns").value_or(0)});
    }
  }
  return runs;
}

void TakeChannels(const Json& document, PartResult& result) {
  for (const Json& channel : document["channels"]) {
    const auto started = NumberAt(channel, "/started_ns");
    if (started && (!result.first_start_ns || *started < *result.first_start_ns)) {
      result.first_start_ns = started;
    }
    result.channels.push_back(channel);
  }
}

}  // namespace

std::optional<std::int64_t> NumberAt(const Json& json, const char* path) {
  const Json::json_pointer pointer(path);
  if (!json.contains(pointer) || !json[pointer].is_number_integer()) {
    return std::nullopt;
  }
  const Json& number = json[pointer];
  const bool is_far = number.is_number_unsigned()
                          ? number.get<std::uint64_t>() > std::uint64_t{kLargestNumber}
                          : number.get<std::int64_t>() < -kLargestNumber;
  return is_far ? std::nullopt : std::optional(number.get<std::int64_t>());
}

std::string TextAt(const Json& json, const char* path) {
  const Json::json_pointer pointer(path);
  return json.contains(pointer) && json[pointer].is_string() ? json[pointer].get<std::string>()
                                                             : "";
}

std::string PartFileName(const Part& part) {
  return fmt::format("part-{}-of-{}.json", part.number, part.of);
}

Result<PartResult> ReadPartResult(const std::string& folder, const std::string& file) {
  const std::string path = folder + "/" + file;
  const Failure unusable{ExitStatus::kFailed, fmt::format("{}: no result of a lineup", file)};
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    return unusable;  // a FIFO would be waited for
  }
  std::ostringstream text;  // a file server may fail in the middle
  text << std::ifstream(path).rdbuf();
  const Json document = Json::parse(text.str(), nullptr, false);
  if (!document.is_object() || NumberAt(document, "/schema") != kJsonSchema ||
      !document.contains("channels") || !document["channels"].is_array() ||
      !document.contains("part") ||
      !std::ranges::all_of(document["channels"], [](const Json& c) { return c.is_object(); })) {
    return unusable;
  }
  const auto part = PartOf(document);
  if (!part) {
    return unusable;
  }
  PartResult result{*part,
                    file,
                    TextAt(document, "/outcome"),
                    TextAt(document, "/machine"),
                    NumberAt(document, "/clock_error_ns"),
                    NumberAt(document, "/start_at_ns"),
                    NumberAt(document, "/started_ns"),
                    NumberAt(document, "/updated_ns"),
                    std::nullopt,
                    BrokenRunsOf(document),
                    {}};
  TakeChannels(document, result);
  return result;
}

std::vector<BrokenRun> BrokenRunsBefore(const std::string& folder, const Part& part) {
  const auto last = ReadPartResult(folder, PartFileName(part));
  if (!last || last->outcome != "running") {
    return {};
  }
  std::vector<BrokenRun> runs = last->broken_runs;
  runs.push_back({last->machine, last->started_ns.value_or(0), last->updated_ns.value_or(0)});
  if (runs.size() > kMostBrokenRuns) {
    runs.erase(runs.begin(), runs.end() - kMostBrokenRuns);
  }
  return runs;
}

Json JsonOf(const std::vector<BrokenRun>& runs) {
  Json json = Json::array();
  for (const BrokenRun& run : runs) {
    json.push_back(
        {{"machine", run.machine}, {"started_ns", run.started_ns}, {"updated_ns", run.updated_ns}});
  }
  return json;
}

}  // namespace ipplay
