// SPDX-License-Identifier: MIT
#include "host/lineup/lineup_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <tuple>

#include "host/base/json.h"
#include "host/base/text.h"
#include "host/base/units.h"
#include "host/library/departures_json.h"

namespace ipplay {
namespace {

std::string Rate(const std::optional<double>& rate) {
  return rate ? fmt::format("{:.4f}", *rate / 1e6) : "-";
}

std::string Lateness(std::int64_t ns) {
  return ns < 0 ? "-" : FormatDuration(std::chrono::nanoseconds(ns));
}

std::uint64_t DamageDone(const ChannelStatus& status) {
  const PlayoutStatistics& counters = status.counters;
  return status.faults.Duplicated + status.faults.Corrupted + counters.LostPackets +
         counters.SequenceErrors + counters.IPChecksumErrors + counters.UDPChecksumErrors;
}

}  // namespace

Json JsonOf(const ChannelStatus& status) {
  const PlayoutStatistics& counters = status.counters;
  return {{"name", status.name},
          {"state", NameOf(status.state)},
          {"input", status.input},
          {"target", status.target},
          {"device", status.device},
          {"starts", status.starts},
          {"started_ns", OrNull(status.started_ns)},
          {"ended_ns", OrNull(status.ended_ns)},
          {"elapsed_ns", status.elapsed.count()},
          {"set_rate_bps", OrNull(status.set_rate_bps)},
          {"rate_bps", OrNull(status.rate_bps)},
          {"mean_rate_bps", OrNull(status.mean_rate_bps)},
          {"ppm", status.ppm},
          {"follows_pcrs", status.follows_pcrs},
          {"datagrams", counters.DatagramsSent},
          {"frame_bytes", counters.BytesSent},
          {"ts_packets", counters.TSPacketsSent},
          {"ts_bytes", counters.TSBytesSent},
          {"ordered",
           {{"lost", counters.LostPackets},
            {"delayed", counters.SequenceErrors},
            {"duplicates", status.faults.Duplicated},
            {"corrupted", status.faults.Corrupted},
            {"ipv4_header_bad", counters.IPChecksumErrors},
            {"udp_bad", counters.UDPChecksumErrors},
            {"on_request", status.damage_orders}}},
          {"departures", DeparturesJson(status.timing)},
          {"last_error", status.last_error.empty() ? Json() : Json(status.last_error)},
          {"notes", status.notes}};
}

std::string LineupJson(const LineupFacts& facts, std::string_view outcome,
                       std::span<const ChannelStatus> channels) {
  Json json{{"schema", kJsonSchema},
            {"lineup", facts.file},
            {"outcome", outcome},
            {"machine", facts.machine},
            {"clock_error_ns", OrNull(facts.clock_error_ns)},
            {"start_at_ns", OrNull(facts.start_at_ns)},
            {"started_ns", facts.started_ns},
            {"updated_ns", facts.updated_ns}};
  json["part"] = facts.part ? Json{{"number", facts.part->number}, {"of", facts.part->of}} : Json();
  json["broken_runs"] = JsonOf(facts.broken_runs);
  json["channels"] = Json::array();
  for (const ChannelStatus& status : channels) {
    json["channels"].push_back(JsonOf(status));
  }
  return TextOf(json);
}

bool HasFailed(const ChannelStatus& status) {
  return status.state == ChannelState::kFailed || status.state == ChannelState::kWaiting ||
         !status.last_error.empty() || status.timing.NotSent > 0;
}

void SortWorstFirst(std::vector<ChannelStatus>& channels) {
  const auto badness = [](const ChannelStatus& status) {
    return std::tuple(status.state == ChannelState::kFailed, !status.last_error.empty(),
                      status.timing.NotSent, status.timing.Late, status.timing.LatenessP99Ns);
  };
  std::ranges::stable_sort(channels,
                           [&](const auto& a, const auto& b) { return badness(a) > badness(b); });
}

std::string LineupTable(std::span<const ChannelStatus> channels, std::size_t rows) {
  std::string text = fmt::format("{:<20} {:<8} {:>10} {:>10} {:>10} {:>10} {:>8} {:>8} {:>7}  {}\n",
                                 "channel", "state", "set Mb/s", "Mb/s", "late p99", "late max",
                                 "late", "not sent", "faults", "target");
  std::array<std::size_t, 7> states{};
  for (const ChannelStatus& status : channels) {
    ++states.at(static_cast<std::size_t>(status.state));
    if (rows == 0) {
      continue;
    }
    --rows;
    fmt::format_to(std::back_inserter(text),
                   "{:<20} {:<8} {:>10} {:>10} {:>10} {:>10} {:>8} {:>8} {:>7}  {}\n",
                   QuotedLine(status.name), NameOf(status.state), Rate(status.set_rate_bps),
                   Rate(status.rate_bps ? status.rate_bps : status.mean_rate_bps),
                   Lateness(status.timing.LatenessP99Ns), Lateness(status.timing.LatenessMaxNs),
                   status.timing.Late, status.timing.NotSent, DamageDone(status),
                   status.last_error.empty() ? status.target : QuotedLine(status.last_error));
  }
  text += FormatCount(channels.size(), "channel") + ":";
  for (std::size_t state = 0; state < states.size(); ++state) {
    if (states.at(state) > 0) {
      text += fmt::format(" {} {}", states.at(state), NameOf(static_cast<ChannelState>(state)));
    }
  }
  return text + "\n";
}

}  // namespace ipplay
