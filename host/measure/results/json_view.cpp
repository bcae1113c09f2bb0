// SPDX-License-Identifier: MIT
#include "host/measure/results/json_view.h"
#include "host/base/json.h"
#include "host/base/wall_clock.h"

#include <fmt/format.h>

#include "host/measure/results/clock_text.h"

namespace ipplay::measure {
namespace {

Json ToJson(const Distribution& d) {
  return {{"count", d.count}, {"min", d.min}, {"mean", d.mean},  {"p50", d.p50},
          {"p90", d.p90},     {"p99", d.p99}, {"p99.9", d.p999}, {"max", d.max}};
}

Json ToJson(const RateFigures& rate) {
  Json json{{"frames", rate.frames},
            {"frame_bytes", rate.frame_bytes},
            {"payload_bytes", rate.payload_bytes},
            {"elapsed_ns", rate.seconds * 1e9},
            {"frames_per_second", rate.frames_per_second},
            {"frame_rate_bps", rate.frame_bit_rate},
            {"payload_rate_bps", rate.payload_bit_rate}};
  if (rate.error_ppm) {
    json["error_ppm"] = *rate.error_ppm;
  }
  return json;
}

Json ToJson(const SpacingFigures& spacing) {
  const double gaps = static_cast<double>(spacing.gap.count);
  Json json = {{"gap_ns", ToJson(spacing.gap)},
               {"gap_error_ns", ToJson(spacing.gap_error)},
               {"relative_error", Histogram::kRelativeError},
               {"clumped_frames", spacing.clumped_frames},
               {"clumped_share", gaps > 0 ? static_cast<double>(spacing.clumped_frames) / gaps : 0},
               {"burst_length_frames", ToJson(spacing.burst_length)},
               {"time_reversals", spacing.time_reversals}};
  if (spacing.grid) {
    json["grid_earliest_ns"] = spacing.grid->low;
    json["grid_latest_ns"] = spacing.grid->high;
    json["grid_peak_to_peak_ns"] = spacing.grid->Spread();
  }
  return json;
}

Json ToJson(const ChecksumCounters& checksums) {
  return {{"ipv4_header_bad", checksums.bad_ip},
          {"udp_bad", checksums.bad_udp},
          {"udp_absent", checksums.absent_udp},
          {"udp_unchecked", checksums.unchecked_udp}};
}

Json ToJson(const RtpFigures& rtp) {
  Json json{{"payload_type", rtp.payload_type},
            {"payload_type_changes", rtp.payload_type_changes},
            {"received", rtp.received},
            {"lost", rtp.lost},
            {"loss_periods", rtp.loss_periods},
            {"longest_loss", rtp.longest_loss},
            {"duplicates", rtp.duplicates},
            {"reordered", rtp.reordered},
            {"reordered_repaired", rtp.repaired},
            {"reorder_distance", ToJson(rtp.reorder_distance)},
            {"strays", rtp.strays},
            {"restarts", rtp.restarts}};
  if (rtp.has_jitter) {
    json["jitter_ns"] = {{"last", rtp.jitter}, {"mean", rtp.jitter_mean}, {"max", rtp.jitter_max}};
  }
  return json;
}

Json ToJson(const FecCounters& fec) {
  Json json;
  if (fec.column_datagrams > 0) {
    json["columns"] = fec.columns;
    json["rows"] = fec.rows;
  }
  if (fec.row_datagrams > 0) {
    json["row_length"] = fec.row_length;
  }
  json["column_datagrams"] = fec.column_datagrams;
  json["row_datagrams"] = fec.row_datagrams;
  json["parity_right"] = fec.parity_right;
  json["parity_wrong"] = fec.parity_wrong;
  json["lost"] = fec.lost;
  json["repaired"] = fec.repaired;
  json["unrepaired"] = fec.Unrepaired();
  json["unrepaired_too_many"] = fec.too_many;
  json["unrepaired_unprotected"] = fec.unprotected;
  return json;
}

Json ToJson(const MdiFigures& mdi) {
  Json json = {{"intervals", mdi.intervals}};
  if (mdi.delay_factor) {
    json["delay_factor_ns"] = {{"mean", mdi.delay_factor->mean}, {"max", mdi.delay_factor->max}};
  }
  if (mdi.loss_rate) {
    json["loss_rate_packets"] = {{"mean", mdi.loss_rate->mean}, {"max", mdi.loss_rate->max}};
  }
  return json;
}

void Put(Json& json, const char* name, const std::optional<double>& value) {
  if (value) {
    json[name] = *value;
  }
}

// Nothing where nothing was measured.
void Put(Json& json, const std::string& prefix, const IntervalFigures& interval) {
  if (interval.count > 0) {
    json[prefix + "min_ns"] = interval.min_ns;
    json[prefix + "mean_ns"] = interval.MeanNs();
    json[prefix + "max_ns"] = interval.max_ns;
  }
}

Json ToJson(const PcrFigures& pcr) {
  Json json{{"count", pcr.count}};
  Put(json, "interval_", pcr.interval);
  json["repetition_errors"] = pcr.repetition_errors;
  json["discontinuity_errors"] = pcr.discontinuity_errors;
  json["accuracy_errors"] = pcr.accuracy_errors;
  json["late_pcrs"] = pcr.late;
  Put(json, "accuracy_peak_to_peak_ns", pcr.accuracy_spread);
  Put(json, "arrival_peak_to_peak_ns", pcr.arrival_spread);
  Put(json, "frequency_offset_ppm", pcr.frequency_offset_ppm);
  Put(json, "rate_bps", pcr.bit_rate);
  return json;
}

Json ToJson(const IndicatorSummary& indicator) {
  Json json{{"indicator", indicator.info->clause},
            {"name", indicator.info->name},
            {"priority", indicator.info->priority},
            {"limit", indicator.info->limit},
            {"measured", indicator.state.measured}};
  if (indicator.state.measured) {
    json["count"] = indicator.state.count;
  }
  if (indicator.state.count > 0) {
    json["last_ns"] = indicator.state.last_ns;
  }
  return json;
}

Json ToJson(const TableSummary& table) {
  Json json{{"pid", table.key.pid}, {"table_id", table.key.table_id}};
  if (table.key.table_id == kTablePmt) {
    json["program"] = table.key.extension;
  } else if (table.key.table_id == kTableEitActual) {
    json["service"] = table.key.extension;
    json["section"] = table.key.section;
  }
  json["sections"] = table.state.sections;
  if (table.state.sections > 0) {
    json["version"] = table.state.version;
  }
  if (table.state.limit_ns > 0) {
    json["limit_ns"] = table.state.limit_ns;
  }
  Put(json, "interval_", table.state.intervals);
  return json;
}

Json ToJson(const ServiceSummary& service) {
  constexpr const char* kKinds[] = {"video", "audio", "subtitles", "data"};
  Json json{{"number", service.number}};
  if (!service.name.empty()) {
    json["name"] = service.name;
  }
  if (!service.provider.empty()) {
    json["provider"] = service.provider;
  }
  json["pmt_pid"] = service.tables.pmt_pid;
  if (service.tables.pcr_pid != kNullPid) {
    json["pcr_pid"] = service.tables.pcr_pid;
  }
  Put(json, "rate_bps", service.bit_rate);
  Json& components = json["components"] = Json::array();
  for (const Component& component : service.tables.components) {
    Json entry{{"pid", component.pid},
               {"stream_type", component.stream_type},
               {"kind", kKinds[static_cast<std::size_t>(component.kind)]}};
    if (*component.coding != 0) {
      entry["coding"] = component.coding;
    }
    if (!component.language.empty()) {
      entry["language"] = component.language;
    }
    components.push_back(std::move(entry));
  }
  return json;
}

Json ToJson(const PidSummary& pid) {
  Json json{{"pid", pid.pid}, {"packets", pid.packets}};
  Put(json, "rate_bps", pid.bit_rate);
  json["continuity_errors"] = pid.continuity_errors;
  if (pid.pcr) {
    json["pcr"] = ToJson(*pid.pcr);
  }
  return json;
}

template <typename Value>
Json ToArray(const std::vector<Value>& values) {
  Json array = Json::array();
  for (const Value& value : values) {
    array.push_back(ToJson(value));
  }
  return array;
}

Json ToJson(const TsFigures& ts) {
  const TsCounters& counters = ts.counters;
  Json json{{"packets", counters.packets},
            {"packet_length_bytes", ts.packet_length},
            {"null_packets", counters.null_packets},
            {"sync_losses", ts.sync_losses},
            {"sync_byte_errors", ts.sync_byte_errors},
            {"continuity_errors", counters.continuity_errors},
            {"continuity_errors_as_arrived", ts.continuity_errors_as_arrived},
            {"missing_packets", counters.missing_packets},
            {"late_packets", counters.late_packets},
            {"transport_errors", counters.transport_errors},
            {"pat_errors", counters.pat_errors},
            {"pmt_errors", counters.pmt_errors},
            {"crc_errors", counters.crc_errors},
            {"pts_errors", counters.pts_errors},
            {"scrambled_packets", counters.scrambled_packets}};
  if (ts.missing_by_pcr) {
    json["missing_packets_by_pcr"] = *ts.missing_by_pcr;
  }
  json["second_priority_errors"] = ts.second_priority_errors;
  json["third_priority_errors"] = ts.third_priority_errors;
  json["left_out"] = ts.left_out;
  if (ts.reference_pid) {
    json["reference_pcr_pid"] = *ts.reference_pid;
  }
  if (ts.stream_id) {
    json["transport_stream_id"] = *ts.stream_id;
  }
  json["tr101290"] = ToArray(ts.indicators);
  json["tables"] = ToArray(ts.tables);
  json["services"] = ToArray(ts.services);
  json["pids"] = ToArray(ts.pids);
  return json;
}

Json ToJson(const CompareFigures& compare) {
  Json json{{"datagrams_equal", compare.equal},
            {"datagrams_different", compare.different},
            {"datagrams_unplaced", compare.unplaced},
            {"skipped_bytes", compare.bytes_skipped}};
  if (const auto& difference = compare.first_difference) {
    json["first_difference"] = {{"datagram", difference->datagram},
                                {"datagram_offset", difference->datagram_offset},
                                {"file_offset", difference->file_offset},
                                {"expected", difference->expected},
                                {"received", difference->received}};
  }
  return json;
}

Json ToJson(const StreamSummary& stream) {
  Json json{{"source", stream.source}, {"destination", stream.destination}};
  if (!stream.vlan.empty()) {
    json["vlan"] = stream.vlan;
  }
  if (stream.ssrc) {
    json["ssrc"] = *stream.ssrc;
  }
  json["first_seen_ns"] = stream.first_seen_ns;
  json["last_seen_ns"] = stream.last_seen_ns;
  json["silent_at_start_ns"] = stream.silent_at_start;
  json["silent_at_end_ns"] = stream.silent_at_end;
  json["longest_silence_ns"] = stream.longest_silence;
  json["cut_frames"] = stream.cut_frames;
  json["ended_early"] = stream.ended_early;
  json["frames_without_detail"] = stream.frames_without_detail;
  if (!stream.rtp) {
    json["repeated_datagrams"] = stream.repeated_datagrams;
  }
  json["rate"] = ToJson(stream.rate);
  json["spacing"] = ToJson(stream.spacing);
  json["checksums"] = ToJson(stream.checksums);
  json["mdi"] = ToJson(stream.mdi);
  json["availability"] = {{"seconds", stream.seconds.seconds},
                          {"errored_seconds", stream.seconds.errored},
                          {"severely_errored_seconds", stream.seconds.severely_errored},
                          {"unavailable_seconds", stream.seconds.unavailable}};
  if (stream.rtp) {
    json["rtp"] = ToJson(*stream.rtp);
  }
  if (stream.protects) {
    json["protects_stream"] = *stream.protects;
  }
  if (stream.is_fec_without_media) {
    json["fec_without_media"] = true;
  }
  if (stream.fec) {
    json["fec"] = ToJson(*stream.fec);
  }
  if (stream.ts) {
    json["ts"] = ToJson(*stream.ts);
  }
  if (stream.compare) {
    json["compare"] = ToJson(*stream.compare);
  }
  return json;
}

Json ToJson(const TwinSummary& twins) {
  const TwinFigures& figures = twins.figures;
  Json json{{"first_stream", twins.streams[0]},   {"second_stream", twins.streams[1]},
            {"packets", figures.packets},         {"first_lost", figures.lost[0]},
            {"second_lost", figures.lost[1]},     {"lost_together", figures.lost_together},
            {"different", figures.different},     {"late", figures.late},
            {"lost_before", figures.lost_before}, {"restarts", figures.restarts}};
  if (const auto unrepaired = twins.Unrepaired()) {
    json["unrepaired"] = *unrepaired;
  }
  json["skew_ns"] = {{"count", figures.skews}};
  if (figures.skews > 0) {
    json["skew_ns"]["min"] = figures.skew_min_ns;
    json["skew_ns"]["mean"] = figures.skew_mean_ns;
    json["skew_ns"]["max"] = figures.skew_max_ns;
  }
  if (twins.combined.rate.frames > 0) {
    json["combined"] = ToJson(twins.combined);
  }
  return json;
}

Json ToJson(const RunInfo& run) {
  Json json{{"version", run.version}, {"started", UtcText(run.started_ns)}};
  json["options"] = Json::array();
  for (const auto& [name, value] : run.options) {
    json["options"].push_back({{"name", name}, {"value", value}});
  }
  return json;
}

Json ToJson(const CaptureSummary& capture) {
  constexpr const char* kClassNames[kFrameClasses] = {
      "udp", "not_ip", "not_udp", "fragment", "truncated", "bad_ip_header", "bad_udp_length"};
  Json json{{"source", capture.source}, {"live", capture.live}, {"frames", capture.frames}};
  for (std::size_t i = 0; i < kFrameClasses; ++i) {
    json["frames_by_kind"][kClassNames[i]] = capture.classes[i];
  }
  json["dropped_by_kernel"] = capture.drops.by_kernel;
  json["dropped_by_adapter"] = capture.drops.by_adapter;
  json["spoiled"] = capture.IsSpoiled();
  json["joined_frames"] = capture.joined_frames;
  json["clock_steps"] = capture.clock_steps;
  if (capture.start_ns && capture.end_ns) {
    json["start_time"] = UtcText(*capture.start_ns);
    json["start_ns"] = *capture.start_ns;
    json["end_ns"] = *capture.end_ns;
  }
  if (!capture.broken_off.empty()) {
    json["broken_off"] = capture.broken_off;
  }
  return json;
}

Json ToJson(const TotalSummary& total) {
  return {{"streams", total.streams},
          {"rate", ToJson(total.rate)},
          {"spacing", ToJson(total.spacing)},
          {"checksums", ToJson(total.checksums)},
          {"lost", total.lost},
          {"lost_ts_packets", total.lost_ts_packets},
          {"repeated_datagrams", total.repeated_datagrams},
          {"cut_frames", total.cut_frames},
          {"duplicates", total.duplicates},
          {"reordered", total.reordered},
          {"ssrc_changes", total.ssrc_changes},
          {"payload_type_changes", total.payload_type_changes},
          {"malformed_rtp", total.malformed_rtp},
          {"rtcp_packets", total.rtcp_packets},
          {"untracked_frames", total.untracked_frames},
          {"memory",
           {{"limit_bytes", total.memory_bytes},
            {"plots_given_up", total.given_up.plots},
            {"details_given_up", total.given_up.details},
            {"frames_without_detail", total.frames_without_detail},
            {"streams_ended_early", total.given_up.streams},
            {"frames_refused", total.given_up.frames}}},
          {"ts_errors", total.ts_errors},
          {"ts_second_priority_errors", total.ts_second_priority_errors},
          {"ts_third_priority_errors", total.ts_third_priority_errors},
          {"different_datagrams", total.different_datagrams}};
}

// A device or file name need not be UTF-8.
// All lines but the first behind `margin`.
std::string Indented(std::string_view text, std::string_view margin) {
  std::string indented;
  for (const char character : text) {
    indented += character;
    if (character == '\n') {
      indented += margin;
    }
  }
  return indented;
}

}  // namespace

void WriteJson(const Summary& summary, std::span<const Verdict> verdicts,
               const std::function<void(std::string_view)>& write) {
  Json json{{"schema", kJsonSchema},
            {"run", ToJson(summary.run)},
            {"capture", ToJson(summary.capture)},
            {"total", ToJson(summary.total)}};
  json["reorder_window"] = {{"packets", summary.reorder.packets},
                            {"longest_wait_ns", summary.reorder.longest_wait_ns}};
  json["total"]["frames_not_measured"] = summary.FramesNotMeasured();
  json["streams"] = Json::array();
  json["twins"] = Json::array();
  for (const TwinSummary& twins : summary.twins) {
    json["twins"].push_back(ToJson(twins));
  }
  Json& judged = json["verdicts"] = Json::array();
  for (const Verdict& verdict : verdicts) {
    judged.push_back({{"name", verdict.name},
                      {"limit", verdict.limit},
                      {"measured", verdict.measured},
                      {"met", verdict.met}});
  }
  json["met"] = AllMet(verdicts);
  // Strings have no line ends, so this one is the member of the whole.
  constexpr std::string_view kStreams = "\n  \"streams\": [";
  const std::string text = TextOf(json, 2);
  const std::size_t streams_at = text.find(kStreams) + kStreams.size();
  write(std::string_view(text).substr(0, streams_at));
  // One by one, since all of them together may take more memory than there is.
  const char* separator = "\n    ";
  for (const StreamSummary& stream : summary.streams) {
    write(separator + Indented(TextOf(ToJson(stream), 2), "    "));
    separator = ",\n    ";
  }
  write(summary.streams.empty() ? "" : "\n  ");
  write(std::string_view(text).substr(streams_at));
}

std::string JsonText(const Summary& summary, std::span<const Verdict> verdicts) {
  std::string text;
  WriteJson(summary, verdicts, [&text](std::string_view part) { text += part; });
  return text;
}

}  // namespace ipplay::measure
