// SPDX-License-Identifier: MIT
#include "host/measure/results/json_view.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace ipplay::measure {
namespace {

// Keeps the order in which names are written here.
using Json = nlohmann::ordered_json;

Json ToJson(const Distribution& d) {
  return {{"count", d.count}, {"min", d.min}, {"mean", d.mean},  {"p50", d.p50},
          {"p90", d.p90},     {"p99", d.p99}, {"p99.9", d.p999}, {"max", d.max}};
}

Json ToJson(const RateFigures& rate) {
  Json json{{"frames", rate.frames},
            {"frame_bytes", rate.frame_bytes},
            {"payload_bytes", rate.payload_bytes},
            {"seconds", rate.seconds},
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
  return {{"gap_ns", ToJson(spacing.gap)},
          {"gap_error_ns", ToJson(spacing.gap_error)},
          {"relative_error", Histogram::kRelativeError},
          {"grid_earliest_ns", spacing.grid_early},
          {"grid_latest_ns", spacing.grid_late},
          {"grid_peak_to_peak_ns", spacing.grid_late - spacing.grid_early},
          {"clumped_frames", spacing.clumped_frames},
          {"clumped_share", gaps > 0 ? static_cast<double>(spacing.clumped_frames) / gaps : 0},
          {"burst_length_frames", ToJson(spacing.burst_length)},
          {"time_reversals", spacing.time_reversals}};
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
            {"reorder_distance", ToJson(rtp.reorder_distance)},
            {"strays", rtp.strays},
            {"restarts", rtp.restarts}};
  if (rtp.has_jitter) {
    json["jitter_ns"] = {{"last", rtp.jitter}, {"mean", rtp.jitter_mean}, {"max", rtp.jitter_max}};
  }
  return json;
}

Json ToJson(const MdiFigures& mdi) {
  return {{"intervals", mdi.intervals},
          {"delay_factor_ns", {{"mean", mdi.delay_factor_mean}, {"max", mdi.delay_factor_max}}},
          {"loss_rate_packets", {{"mean", mdi.loss_rate_mean}, {"max", mdi.loss_rate_max}}}};
}

Json ToJson(const PcrFigures& pcr) {
  return {{"count", pcr.count},
          {"interval_mean_ns", pcr.interval_mean},
          {"interval_max_ns", pcr.interval_max},
          {"repetition_errors", pcr.repetition_errors},
          {"discontinuity_errors", pcr.discontinuity_errors},
          {"accuracy_peak_to_peak_ns", pcr.accuracy_spread},
          {"arrival_peak_to_peak_ns", pcr.arrival_spread},
          {"frequency_offset_ppm", pcr.frequency_offset_ppm},
          {"rate_bps", pcr.bit_rate}};
}

Json ToJson(const TsFigures& ts) {
  const TsCounters& counters = ts.counters;
  Json json{{"packets", counters.packets},
            {"packet_length_bytes", ts.packet_length},
            {"null_packets", counters.null_packets},
            {"sync_losses", ts.sync_losses},
            {"sync_byte_errors", ts.sync_byte_errors},
            {"continuity_errors", counters.continuity_errors},
            {"missing_packets", counters.missing_packets},
            {"transport_errors", counters.transport_errors},
            {"pat_errors", counters.pat_errors},
            {"pmt_errors", counters.pmt_errors},
            {"crc_errors", counters.crc_errors},
            {"pts_errors", counters.pts_errors},
            {"scrambled_packets", counters.scrambled_packets}};
  if (ts.reference_pid) {
    json["reference_pcr_pid"] = *ts.reference_pid;
  }
  Json& pids = json["pids"] = Json::array();
  for (const PidSummary& pid : ts.pids) {
    Json entry{{"pid", pid.pid},
               {"packets", pid.packets},
               {"rate_bps", pid.bit_rate},
               {"continuity_errors", pid.continuity_errors}};
    if (pid.pcr) {
      entry["pcr"] = ToJson(*pid.pcr);
    }
    pids.push_back(std::move(entry));
  }
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
  if (!stream.rtp) {
    json["repeated_datagrams"] = stream.repeated_datagrams;
  }
  json["rate"] = ToJson(stream.rate);
  json["spacing"] = ToJson(stream.spacing);
  json["checksums"] = ToJson(stream.checksums);
  json["mdi"] = ToJson(stream.mdi);
  if (stream.rtp) {
    json["rtp"] = ToJson(*stream.rtp);
  }
  if (stream.ts) {
    json["ts"] = ToJson(*stream.ts);
  }
  if (stream.compare) {
    json["compare"] = ToJson(*stream.compare);
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
          {"ts_errors", total.ts_errors},
          {"different_datagrams", total.different_datagrams}};
}

}  // namespace

std::string JsonText(const Summary& summary, std::span<const Verdict> verdicts) {
  Json json{{"capture", ToJson(summary.capture)}, {"total", ToJson(summary.total)}};
  json["total"]["frames_not_measured"] = summary.FramesNotMeasured();
  Json& streams = json["streams"] = Json::array();
  for (const StreamSummary& stream : summary.streams) {
    streams.push_back(ToJson(stream));
  }
  Json& judged = json["verdicts"] = Json::array();
  for (const Verdict& verdict : verdicts) {
    judged.push_back({{"name", verdict.name},
                      {"limit", verdict.limit},
                      {"measured", verdict.measured},
                      {"met", verdict.met}});
  }
  json["met"] = AllMet(verdicts);
  // A device or file name need not be UTF-8.
  return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

}  // namespace ipplay::measure
