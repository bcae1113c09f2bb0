// SPDX-License-Identifier: MIT
#include "host/play/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "host/base/json.h"
#include "host/base/text.h"
#include "host/base/units.h"
#include "host/base/wall_clock.h"
#include "host/library/departures_json.h"
#include "host/play/frame_fields.h"
#include "host/play/orders.h"
#include "host/play/plan_fec.h"

namespace ipplay {
namespace {

using std::chrono::nanoseconds;

// Between two datagrams.
std::optional<nanoseconds> JitterOf(const PlayoutStatistics& counters) {
  if (counters.DatagramsSent < 2) {
    return std::nullopt;
  }
  return nanoseconds(static_cast<std::int64_t>(counters.Jitter * 1e9));
}

// The errors that were ordered, not what a receiver sees.
std::string OrderedErrors(const PlayoutStatistics& counters, const IpPlayoutFaultCounts& faults) {
  std::string text =
      fmt::format("lost {}, delayed {}, IP checksum {}, UDP checksum {}", counters.LostPackets,
                  counters.SequenceErrors, counters.IPChecksumErrors, counters.UDPChecksumErrors);
  if (faults.Duplicated > 0) {
    text += fmt::format(", sent twice {}", faults.Duplicated);
  }
  if (faults.Corrupted > 0) {
    text += fmt::format(", corrupted {}", faults.Corrupted);
  }
  return text;
}

// "continuity in 3, drop in 57".
std::string StreamFaultsText(const PlayOptions& options, const Status& status) {
  std::vector<std::string> parts;
  for (std::size_t i = 0; i < status.stream_faults.size(); ++i) {
    parts.push_back(fmt::format("{} in {}", NameOf(options.stream_faults.at(i).kind),
                                FormatCount(status.stream_faults[i])));
  }
  return fmt::format("{}", fmt::join(parts, ", "));
}

// Those that there are, for a line that is short of room.
std::string BriefErrors(const PlayoutStatistics& counters, const IpPlayoutFaultCounts& faults) {
  const struct {
    const char* name;
    std::uint64_t count;
  } kErrors[] = {{"lost", counters.LostPackets},        {"delayed", counters.SequenceErrors},
                 {"twice", faults.Duplicated},          {"corrupted", faults.Corrupted},
                 {"bad IP", counters.IPChecksumErrors}, {"bad UDP", counters.UDPChecksumErrors}};
  std::string text;
  for (const auto& error : kErrors) {
    if (error.count > 0) {
      text += fmt::format("{}{} {}", text.empty() ? "ordered: " : ", ", error.name, error.count);
    }
  }
  return text;
}

std::string RateSource(const PlayOptions& options, const StreamFacts& facts) {
  if (options.frame_bit_rate) {
    return "from --frame-bitrate";
  }
  if (options.bit_rate) {
    return "as given";
  }
  if (options.by_arrival) {
    return "on average in the capture";
  }
  return fmt::format("by the PCRs of PID {}", facts.rate ? facts.rate->pid : 0);
}

std::string RoundsText(const PlayPlan& plan) {
  if (!plan.rounds.count) {
    return "forever";
  }
  return *plan.rounds.count == 1 ? "once" : fmt::format("{} times", *plan.rounds.count);
}

std::string StreamText(const StreamFacts& facts) {
  const std::string size = facts.bytes ? FormatBytes(*facts.bytes) : "of unknown length";
  if (facts.format.IsRaw()) {
    return fmt::format("raw bytes, {}", size);
  }
  const auto packets = facts.Packets();
  return fmt::format("{}packets of {} bytes, {}",
                     packets ? fmt::format("{} ", FormatCount(*packets)) : "",
                     facts.format.packet_bytes, size);
}

std::string HexBytes(const FrameField& field) {
  if (!field.open) {
    return fmt::format("{:02x}", fmt::join(field.bytes, " "));
  }
  std::string hidden;
  for (std::size_t i = 0; i < field.bytes.size(); ++i) {
    hidden += i == 0 ? "--" : " --";
  }
  return hidden;
}

void AddDerived(std::string& text, const PlayOptions& options, const StreamFacts& facts,
                const PlayPlan& plan, const Path& path) {
  const auto line = [&text](std::string_view name, const std::string& value) {
    fmt::format_to(std::back_inserter(text), "  {:<22}{}\n", name, value);
  };
  line("input", fmt::format("{}: {}", QuotedLine(options.InputText()), StreamText(facts)));
  line("target", fmt::format("{} through {} (device {})", FormatTarget(options.to),
                             path.adapter.name, path.adapter.index));
  line("stream bit rate",
       fmt::format("{:.3f} bit/s, {}", plan.rates.stream, RateSource(options, facts)));
  line("frame bit rate", fmt::format("{:.3f} bit/s for one stream", plan.rates.frame));
  line("datagram size",
       fmt::format("{} bytes: {} of headers, {} of payload", plan.sizes.frame_bytes,
                   plan.sizes.header_bytes, plan.sizes.payload_bytes));
  line("streams", fmt::format("{}", plan.copies));
  line("packets per batch", fmt::format("{}", plan.rates.batch));
  line("gap", fmt::format("{:.3f} us between frames", static_cast<double>(plan.sizes.frame_bytes) *
                                                          8e6 / (plan.rates.frame * plan.copies)));
  if (options.fec) {
    line("FEC", FecText(options));
  }
  line("rounds", RoundsText(plan));
  if (plan.rounds.restamp) {
    line("restamping",
         fmt::format("start {} and each round {} ticks of 27 MHz",
                     plan.rounds.restamp->start_offset, plan.rounds.restamp->round_ticks));
  }
  if (plan.rates.rtp_clock_ratio > 0) {
    line("RTP clock", fmt::format("{:.6f} kHz", plan.rates.rtp_clock_ratio * 90));
  }
  for (const std::string& note : plan.notes) {
    line("note", note);
  }
}

// When frames left against their places.
std::string TimingText(const IpPlayoutTiming& timing) {
  if (timing.LatenessMaxNs < 0) {
    return "";
  }
  const auto time = [](std::int64_t ns) { return FormatDuration(nanoseconds(ns)); };
  std::string text = fmt::format("  lateness   {} at the median, {} at 99 %, {} at most; {} late\n",
                                 time(timing.LatenessP50Ns), time(timing.LatenessP99Ns),
                                 time(timing.LatenessMaxNs), FormatCount(timing.Late, "frame"));
  if (timing.LeftOut > 0) {
    text += fmt::format("  left out   {}, too late\n", FormatCount(timing.LeftOut, "frame"));
  }
  if (timing.NotSent > 0) {
    text += fmt::format("  not taken  {}, by the adapter\n", FormatCount(timing.NotSent, "frame"));
  }
  if (timing.Discarded > 0) {
    text += fmt::format("  discarded  {}, built when it was stopped\n",
                        FormatCount(timing.Discarded, "frame"));
  }
  if (timing.DryTimes > 0) {
    text += fmt::format("  ran dry    {}, for {} in all\n", FormatCount(timing.DryTimes, "time"),
                        time(timing.DryNs));
  }
  if (timing.ShiftNs > 0) {
    text += fmt::format("  shifted    by {}, with pauses\n", time(timing.ShiftNs));
  }
  if (timing.LongestGapNs >= 0) {
    text += fmt::format("  gap        {} at most\n", time(timing.LongestGapNs));
  }
  return text;
}

std::string LedgerText(const PlayOptions& options, const IpPlayoutTiming& timing) {
  const std::string left_out = timing.LedgerLeftOut == 0
                                   ? ""
                                   : fmt::format(", without {} that it had no room for",
                                                 FormatCount(timing.LedgerLeftOut, "frame"));
  return fmt::format("  ledger     {}{}\n", QuotedLine(options.ledger), left_out);
}

std::string LatenessWords(const std::optional<IpPlayoutTiming>& timing) {
  return timing && timing->LatenessMaxNs >= 0
             ? fmt::format("late by up to {}", FormatDuration(nanoseconds(timing->LatenessMaxNs)))
             : "";
}

std::string OutputText(const OutputStatus& output) {
  const std::string late = LatenessWords(output.timing);
  return fmt::format("  also to    {}: {}{}{}\n",
                     output.into.empty() ? output.target : QuotedLine(output.into),
                     FormatCount(output.datagrams, "datagram"), late.empty() ? "" : ", ", late);
}

std::string TwinText(const TwinStatus& twin) {
  std::string text =
      fmt::format("second path: {}, {} later\n  sent       {}\n", twin.target,
                  FormatDuration(twin.skew), FormatCount(twin.counters.DatagramsSent, "datagram"));
  text += fmt::format("  ordered    {}\n", OrderedErrors(twin.counters, {}));
  return text + (twin.timing ? TimingText(*twin.timing) : "") +
         fmt::format("  seed       {}\n", twin.seed);
}

Json OrderedJson(const PlayoutStatistics& counters) {
  return {{"lost", counters.LostPackets},
          {"lost_bytes", counters.LostBytes},
          {"delayed", counters.SequenceErrors},
          {"ipv4_header_bad", counters.IPChecksumErrors},
          {"udp_bad", counters.UDPChecksumErrors}};
}

Json OrderedJson(const PlayOptions& options, const Status& status) {
  Json json = OrderedJson(status.counters);
  json["duplicates"] = status.faults.Duplicated;
  json["corrupted"] = status.faults.Corrupted;
  json["waiting"] = status.faults.Waiting;
  for (std::size_t i = 0; i < status.stream_faults.size(); ++i) {
    json["packets"].push_back(
        {{"fault", NameOf(options.stream_faults.at(i).kind)}, {"count", status.stream_faults[i]}});
  }
  if (status.held_back) {
    json["held_back"] = *status.held_back;
  }
  return json;
}

Json OutputJson(const OutputStatus& output) {
  Json json{{"target", output.target}, {"datagrams", output.datagrams}};
  if (!output.into.empty()) {
    json["into"] = output.into;
  }
  if (output.timing && output.timing->LatenessMaxNs >= 0) {
    json["late"] = output.timing->Late;
    json["not_sent"] = output.timing->NotSent;
    json["lateness_max_ns"] = output.timing->LatenessMaxNs;
  }
  return json;
}

Json DeparturesOfSender(const IpPlayoutTiming& timing) {
  Json json{{"sender", &timing.Sender[0]}};
  json.update(DeparturesJson(timing));
  return json;
}

Json InputJson(const Status& status) {
  Json json;
  if (status.damage) {
    json = {{"left_out_bytes", status.damage->bytes}, {"left_out_places", status.damage->places}};
  }
  if (status.input_ppm) {
    json["clock_ppm"] = *status.input_ppm;
  }
  return json;
}

Json TwinJson(const TwinStatus& twin) {
  Json json{{"target", twin.target},
            {"skew_ns", twin.skew.count()},
            {"seed", twin.seed},
            {"datagrams", twin.counters.DatagramsSent},
            {"ordered", OrderedJson(twin.counters)}};
  if (twin.timing && twin.timing->LatenessMaxNs >= 0) {
    json["departures"] = DeparturesOfSender(*twin.timing);
  }
  return json;
}

}  // namespace

std::string WayText(const PlayOptions& options, const PlayPlan& plan, const std::string& device) {
  switch (plan.schedule.To) {
    case IPPLAYOUT_TO_FILE:
      return fmt::format("{} into {}", FormatTarget(options.to), QuotedLine(options.into));
    case IPPLAYOUT_TO_SOCKET:
      return fmt::format("{} through a UDP socket", FormatTarget(options.to));
    default:
      return fmt::format("{} through {}", FormatTarget(options.to), device);
  }
}

std::string FormatClock(nanoseconds time) {
  const auto seconds = time.count() / 1'000'000'000;
  if (seconds < 3600) {
    return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
  }
  return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::string FormatMoment(nanoseconds time) {
  return fmt::format("{}.{:03}", FormatClock(time), time.count() / 1'000'000 % 1000);
}

std::string ProgressLine(const PlayPlan& plan, const Status& status, std::size_t columns) {
  const PlayoutStatistics& counters = status.counters;
  // Each with its rank: where there is no room for all, the highest goes first.
  struct Part {
    int rank;
    std::string text;
  };
  std::vector<Part> parts;
  if (status.share) {
    parts.push_back({1, fmt::format("{:.1f} %", *status.share * 100)});
  }
  parts.push_back({0, FormatClock(status.elapsed)});
  if (status.remaining) {
    parts.push_back({6, fmt::format("{} left", FormatClock(*status.remaining))});
  }
  if (!plan.rounds.count || *plan.rounds.count > 1) {
    parts.push_back({5, fmt::format("round {}", status.round)});
  }
  parts.push_back({8, fmt::format("{:.4f}M set", status.set_rate / 1e6)});
  if (status.paused || status.recent_rate) {
    parts.push_back(
        {2, status.paused ? "paused" : fmt::format("{:.4f}M real", *status.recent_rate / 1e6)});
  }
  parts.push_back({7, FormatCount(counters.DatagramsSent, "datagram")});
  if (const std::string errors = BriefErrors(counters, status.faults); !errors.empty()) {
    parts.push_back({3, errors});
  }
  if (const auto jitter = JitterOf(counters)) {
    parts.push_back({9, fmt::format("jitter {}", FormatDuration(*jitter))});
  }
  if (const std::string late = LatenessWords(status.timing); !late.empty()) {
    parts.push_back({4, late});
  }
  for (;;) {
    std::string line;
    for (const Part& part : parts) {
      line += line.empty() ? part.text : "  " + part.text;
    }
    if (line.size() <= columns || parts.size() == 1) {
      return line.substr(0, columns);
    }
    parts.erase(std::max_element(parts.begin(), parts.end(),
                                 [](const Part& a, const Part& b) { return a.rank < b.rank; }));
  }
}

std::string Introduction(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan,
                         const std::string& device) {
  std::string text =
      fmt::format("{}: {}; played {}\n", options.InputText(), StreamText(facts), RoundsText(plan));
  text += fmt::format("{}: {} {}, frames of {} bytes every {}{}\n", WayText(options, plan, device),
                      FormatBitRate(plan.rates.stream), RateSource(options, facts),
                      plan.sizes.frame_bytes, FormatDuration(plan.rates.gap),
                      plan.copies == 1 ? "" : fmt::format(", {} streams", plan.copies));
  if (options.fec) {
    text += fmt::format("FEC: {}\n", FecText(options));
  }
  return text;
}

std::string Summary(const PlayOptions& options, const PlayPlan& plan, const Status& status,
                    std::string_view outcome) {
  const PlayoutStatistics& counters = status.counters;
  std::string text = fmt::format("{}: {} to {} in {}", outcome, options.InputText(),
                                 FormatTarget(options.to), FormatDuration(status.elapsed));
  if (status.share && *status.share < 1) {
    text += fmt::format(", {:.1f} %", *status.share * 100);
  }
  text += fmt::format("\n  sent       {}", FormatCount(counters.DatagramsSent, "datagram"));
  if (plan.copies > 1) {
    text += fmt::format(" in {} copies ({} frames)", FormatCount(plan.copies),
                        FormatCount(counters.DatagramsSent * plan.copies));
  }
  if (counters.TSPacketSize > 0) {
    text += fmt::format(", {}", FormatCount(counters.TSPacketsSent, "transport packet"));
  }
  text += fmt::format(", {}\n", FormatBytes(counters.TSBytesSent));
  text += fmt::format("  bit rate   {} set, {}\n", FormatBitRate(status.set_rate),
                      status.mean_rate ? FormatBitRate(*status.mean_rate) + " real"
                                       : "too few datagrams to measure it");
  if (status.input_ppm) {
    text += fmt::format("  input      its clock was followed, {:+.1f} ppm at the end\n",
                        *status.input_ppm);
  }
  text += fmt::format("  ordered    {}\n", OrderedErrors(counters, status.faults));
  if (!status.stream_faults.empty()) {
    text += fmt::format("  packets    {}, on purpose\n", StreamFaultsText(options, status));
  }
  if (!status.held_back || *status.held_back > 0) {
    text +=
        fmt::format("  held back  {} of the delayed datagrams: the end came before they were due\n",
                    status.held_back ? FormatCount(*status.held_back) : "an unknown number");
  }
  if (status.timing) {
    text += TimingText(*status.timing);
  }
  if (status.timing && !options.ledger.empty()) {
    text += LedgerText(options, *status.timing);
  }
  for (const OutputStatus& output : status.outputs) {
    text += OutputText(output);
  }
  if (const auto jitter = JitterOf(counters)) {
    text += fmt::format("  jitter     {}\n", FormatDuration(*jitter));
  }
  text += plan.by_schedule ? fmt::format("  seed       {}\n", plan.schedule.Seed) : "";
  return text + (status.twin ? TwinText(*status.twin) : "");
}

std::string EventJson(std::string_view event, nanoseconds at, std::string_view text) {
  Json json{{"schema", kJsonSchema},
            {"event", event},
            {"time", UtcText(WallClockNow().count())},
            {"at_ns", at.count()}};
  if (!text.empty()) {
    json["text"] = text;
  }
  return TextOf(json);
}

std::string FaultJson(const IpPlayoutDone& done, ActionKind kind, std::string_view by,
                      nanoseconds at) {
  return Json{{"schema", kJsonSchema},
              {"event", "fault"},
              {"time", UtcText(WallClockNow().count())},
              {"at_ns", at.count()},
              {"action", NameOf(kind)},
              {"by", by},
              {"count", done.Count},
              {"first_datagram", done.Datagram + 1},
              {"length_ns", done.LastDueNs - done.FirstDueNs}}
      .dump();
}

std::string StatusJson(const PlayOptions& options, const PlayPlan& plan, const Status& status,
                       std::string_view event, std::string_view outcome) {
  const PlayoutStatistics& counters = status.counters;
  Json json{{"schema", kJsonSchema}, {"event", event}};
  if (!outcome.empty()) {
    json["outcome"] = outcome;
  }
  json["time"] = UtcText(WallClockNow().count());
  json["target"] = FormatTarget(options.to);
  if (plan.by_schedule) {
    json["seed"] = plan.schedule.Seed;
  }
  json["elapsed_ns"] = status.elapsed.count();
  if (status.share) {
    json["percent"] = *status.share * 100;
  }
  if (status.remaining) {
    json["remaining_ns"] = status.remaining->count();
  }
  json["round"] = status.round;
  json["paused"] = status.paused;
  json["set_rate_bps"] = status.set_rate;
  json["rate_bps"] = OrNull(event == "summary" ? status.mean_rate : status.recent_rate);
  json["mean_rate_bps"] = OrNull(status.mean_rate);
  json["datagrams"] = counters.DatagramsSent;
  json["frames"] = counters.DatagramsSent * plan.copies;
  json["frame_size_bytes"] = plan.sizes.frame_bytes;
  json["frame_bytes"] = counters.BytesSent;
  json["ts_packets"] = counters.TSPacketsSent;
  json["ts_bytes"] = counters.TSBytesSent;
  json["ordered"] = OrderedJson(options, status);
  if (Json input = InputJson(status); !input.empty()) {
    json["input"] = std::move(input);
  }
  if (status.timing && status.timing->LatenessMaxNs >= 0) {
    json["departures"] = DeparturesOfSender(*status.timing);
  }
  if (status.timing && !options.ledger.empty()) {
    json["ledger"] = {{"file", options.ledger}, {"left_out", status.timing->LedgerLeftOut}};
  }
  for (const OutputStatus& output : status.outputs) {
    json["outputs"].push_back(OutputJson(output));
  }
  json["jitter_ns"] = JitterOf(counters) ? Json(counters.Jitter * 1e9) : Json();
  if (status.twin) {
    json["twin"] = TwinJson(*status.twin);
  }
  return TextOf(json);
}

std::string DryRun(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan,
                   const Path& path, std::span<const std::uint8_t> payload) {
  std::string text = "Playout\n";
  AddDerived(text, options, facts, plan, path);
  text += "\nSettings\n";
  std::size_t unset = 0;
  for (const NamedSetting& setting : Describe(plan.settings)) {
    if (setting.value.find_first_not_of("0.:\" ") == std::string::npos) {
      ++unset;
    } else {
      text += fmt::format("  {:<34}{}\n", setting.name, setting.value);
    }
  }
  text += fmt::format("  and {} that are 0 or empty\n", unset);
  text += "\nHeaders of the first datagram\n";
  text += fmt::format("  {:>6}  {:<48}{:<42}{}\n", "offset", "bytes", "field", "value");
  const bool known = path.destination.has_value() || options.dst_mac.has_value();
  for (const FrameField& field : FirstFrameFields(plan.settings.params, known, payload)) {
    text += fmt::format("  {:>6}  {:<48}{:<42}{}\n", field.offset, HexBytes(field), field.name,
                        field.value);
  }
  return text;
}

}  // namespace ipplay
