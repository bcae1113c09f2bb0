// SPDX-License-Identifier: MIT
#include "host/measure/results/summary.h"

#include <algorithm>
#include <map>
#include <utility>

namespace ipplay::measure {
namespace {

RateFigures FiguresOf(const RateMeter& rate, std::optional<double> expected) {
  RateFigures figures;
  figures.frames = rate.Frames();
  figures.frame_bytes = rate.FrameBytes();
  figures.payload_bytes = rate.PayloadBytes();
  figures.seconds = rate.Seconds();
  figures.frames_per_second = rate.FrameRate();
  figures.frame_bit_rate = rate.FrameBitRate();
  figures.payload_bit_rate = rate.PayloadBitRate();
  if (expected && rate.FittedFrameBitRate() > 0) {
    figures.error_ppm = (rate.FittedFrameBitRate() / *expected - 1) * 1e6;
  }
  return figures;
}

SpacingFigures FiguresOf(const Spacing& spacing) {
  SpacingFigures figures;
  figures.gap = DistributionOf(spacing.Gaps());
  figures.gap_error = DistributionOf(spacing.GapErrors());
  figures.grid = spacing.GridDeviation();
  figures.clumped_frames = spacing.ClumpedFrames();
  figures.burst_length = DistributionOf(spacing.BurstLengths());
  figures.time_reversals = spacing.TimeReversals();
  return figures;
}

RtpFigures FiguresOf(const Stream::Rtp& rtp) {
  RtpFigures figures;
  figures.payload_type = rtp.payload_type;
  figures.payload_type_changes = rtp.payload_type_changes;
  figures.received = rtp.sequence.Received();
  figures.lost = rtp.sequence.Lost();
  figures.loss_periods = rtp.sequence.LossPeriods();
  figures.longest_loss = rtp.sequence.LongestLoss();
  figures.duplicates = rtp.sequence.Duplicates();
  figures.reordered = rtp.sequence.Reordering().Count();
  figures.repaired = rtp.window.Repaired();
  figures.reorder_distance = DistributionOf(rtp.sequence.Reordering());
  figures.strays = rtp.sequence.Strays();
  figures.restarts = rtp.sequence.Restarts();
  figures.has_jitter = rtp.jitter.IsDefined();
  figures.jitter = rtp.jitter.Current();
  figures.jitter_mean = rtp.jitter.Mean();
  figures.jitter_max = rtp.jitter.Max();
  return figures;
}

std::optional<MeanAndMax> MeanAndMaxOf(const Histogram& histogram) {
  if (histogram.Count() == 0) {
    return std::nullopt;
  }
  return MeanAndMax{histogram.Mean(), static_cast<double>(histogram.Max())};
}

MdiFigures FiguresOf(const MediaDeliveryIndex& mdi) {
  return {.intervals = mdi.LossRates().Count(),
          .all_delay_factors = mdi.HasAllDelayFactors(),
          .delay_factor = MeanAndMaxOf(mdi.DelayFactors()),
          .loss_rate = MeanAndMaxOf(mdi.LossRates())};
}

PcrFigures FiguresOf(const PcrTracker& pcr) {
  PcrFigures figures;
  figures.count = pcr.Count();
  figures.interval = pcr.Intervals();
  figures.repetition_errors = pcr.RepetitionErrors();
  figures.discontinuity_errors = pcr.DiscontinuityErrors();
  figures.accuracy_errors = pcr.AccuracyErrors();
  figures.late = pcr.Late();
  figures.accuracy_spread = pcr.AccuracySpread();
  figures.arrival_spread = pcr.ArrivalSpread();
  figures.frequency_offset_ppm = pcr.FrequencyOffsetPpm();
  figures.bit_rate = pcr.BitRate();
  return figures;
}

std::uint64_t LargerMissing(std::uint64_t by_counters, std::optional<std::uint64_t> by_pcr) {
  return std::max(by_counters, by_pcr.value_or(0));
}

// A PID's packets in bits per second. N datagrams span N-1 gaps, so the last one's packets are left
// out, as they are of the stream's rate.
struct PidRate {
  std::optional<double> per_packet{};

  PidRate(const TsAnalysis& ts, double seconds) {
    const std::uint64_t packets = ts.Counters().packets;
    if (seconds > 0 && packets > ts.LastPackets()) {
      const double spanned = static_cast<double>(packets - ts.LastPackets());
      per_packet = kTsPacketLength * 8 / seconds * spanned / static_cast<double>(packets);
    }
  }
  std::optional<double> Of(std::uint64_t packets) const {
    return per_packet ? std::optional(*per_packet * static_cast<double>(packets)) : std::nullopt;
  }
};

// Every PID of the service once.
std::vector<std::uint16_t> PidsOf(const Service& service) {
  std::vector<std::uint16_t> pids{service.pmt_pid, service.pcr_pid};
  for (const Component& component : service.components) {
    pids.push_back(component.pid);
  }
  std::ranges::sort(pids);
  pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
  return pids;
}

void AddServices(const TsAnalysis& ts, const PidRate& rate, TsFigures& figures) {
  std::map<std::uint16_t, std::uint64_t> packets;
  for (const PidSummary& pid : figures.pids) {
    packets[pid.pid] = pid.packets;
  }
  for (const auto& [number, service] : ts.Services().Services()) {
    ServiceSummary summary{
        .number = number, .name = {}, .provider = {}, .tables = service, .bit_rate = {}};
    if (const auto name = ts.Services().Names().find(number); name != ts.Services().Names().end()) {
      summary.name = name->second.name;
      summary.provider = name->second.provider;
    }
    std::uint64_t sum = 0;
    for (const std::uint16_t pid : PidsOf(service)) {
      const auto found = packets.find(pid);
      sum += found == packets.end() ? 0 : found->second;
    }
    summary.bit_rate = rate.Of(sum);
    figures.services.push_back(std::move(summary));
  }
}

void AddIndicators(const TsAnalysis& ts, TsFigures& figures) {
  for (std::size_t i = 0; i < kIndicators; ++i) {
    const auto indicator = static_cast<Indicator>(i);
    figures.indicators.push_back({&InfoOf(indicator), ts.Indicators()[indicator]});
  }
  figures.errors = ts.Errors();
  figures.second_priority_errors = ts.Indicators().Sum(2);
  figures.third_priority_errors = ts.Indicators().Sum(3);
  for (const auto& [key, state] : ts.Tables().Tables()) {
    figures.tables.push_back({key, state});
  }
  figures.left_out = ts.Tables().LeftOut() + ts.Services().LeftOut();
}

TsFigures FiguresOf(const TsAnalysis& ts, double seconds) {
  TsFigures figures;
  figures.counters = ts.Counters();
  figures.counters.missing_packets = ts.MissingPackets();
  figures.missing_by_pcr = ts.MissingPacketsByPcr();
  figures.packet_length = ts.Framer().PacketLength();
  figures.sync_losses = ts.Framer().SyncLosses();
  figures.sync_byte_errors = ts.Framer().SyncByteErrors();
  figures.reference_pid = ts.ReferencePid();
  if (ts.Services().HasPat()) {
    figures.stream_id = ts.Services().StreamId();
  }
  const PidRate rate(ts, seconds);
  for (const PidFigures& pid : ts.Pids()) {
    PidSummary summary;
    summary.pid = pid.pid;
    summary.packets = pid.packets;
    summary.continuity_errors = pid.continuity_errors;
    summary.bit_rate = rate.Of(pid.packets);
    if (pid.pcr != nullptr) {
      summary.pcr = FiguresOf(*pid.pcr);
    }
    figures.pids.push_back(summary);
  }
  AddIndicators(ts, figures);
  AddServices(ts, rate, figures);
  return figures;
}

CompareFigures FiguresOf(const PayloadCompare& compare) {
  return {compare.Equal(), compare.Different(), compare.Unplaced(), compare.BytesSkipped(),
          compare.FirstDifference()};
}

void AddUp(const Stream& stream, TotalSummary& total) {
  total.rate.payload_bytes += stream.Rate().PayloadBytes();
  if (const auto* rtp = stream.AsRtp()) {
    total.lost += rtp->sequence.Lost();
    total.rtp_expected +=
        rtp->sequence.Received() - rtp->sequence.Duplicates() + rtp->sequence.Lost();
    total.duplicates += rtp->sequence.Duplicates();
    total.reordered += rtp->sequence.Reordering().Count();
    total.payload_type_changes += rtp->payload_type_changes;
  } else if (stream.Ts() != nullptr) {
    const std::uint64_t missing =
        LargerMissing(stream.Ts()->MissingPackets(), stream.Ts()->MissingPacketsByPcr());
    total.lost_ts_packets += missing;
    total.ts_expected += stream.Ts()->Counters().packets + missing;
  }
  total.repeated_datagrams += stream.RepeatedDatagrams();
  total.cut_frames += stream.CutFrames();
  total.frames_without_detail += stream.FramesWithoutDetail();
  if (stream.Ts() != nullptr) {
    total.ts_errors += stream.Ts()->Errors();
    total.ts_second_priority_errors += stream.Ts()->Indicators().Sum(2);
    total.ts_third_priority_errors += stream.Ts()->Indicators().Sum(3);
  }
  if (stream.Compare() != nullptr) {
    total.different_datagrams += stream.Compare()->Different();
  }
}

}  // namespace

const PcrFigures* TsFigures::Reference() const {
  for (const PidSummary& pid : pids) {
    if (reference_pid == pid.pid) {
      return &*pid.pcr;
    }
  }
  return nullptr;
}

std::uint64_t TsFigures::Missing() const {
  return LargerMissing(counters.missing_packets, missing_by_pcr);
}

std::uint64_t Summary::FramesNotMeasured() const {
  std::uint64_t frames = total.untracked_frames + total.malformed_rtp + total.frames_without_detail;
  for (const FrameClass kind : {FrameClass::kFragment, FrameClass::kTruncated,
                                FrameClass::kBadIpHeader, FrameClass::kBadUdpLength}) {
    frames += capture.classes[static_cast<std::size_t>(kind)];
  }
  return frames;
}

std::optional<std::uint64_t> StreamSummary::Lost() const {
  if (rtp) {
    return rtp->lost;
  }
  // Null packets have no counters.
  if (ts && ts->counters.packets > ts->counters.null_packets) {
    return ts->Missing();
  }
  return std::nullopt;
}

std::optional<std::uint64_t> StreamSummary::Unrepaired() const {
  // Where parity is wrong, so may be what it has repaired.
  const bool is_doubtful = fec && fec->repaired > 0 && fec->parity_wrong > 0;
  if (!rtp || is_fec_without_media || is_doubtful || rtp->restarts + rtp->strays > 0 ||
      frames_without_detail > 0) {
    return std::nullopt;
  }
  return fec ? fec->Unrepaired() : rtp->lost;
}

std::optional<std::uint64_t> TwinSummary::Unrepaired() const {
  if (figures.restarts > 0) {
    return std::nullopt;
  }
  if (!combined.fec) {
    return figures.lost_together + figures.lost_before;
  }
  const std::optional<std::uint64_t> behind = combined.Unrepaired();
  return behind ? std::optional(*behind + figures.lost_in_front + figures.lost_before)
                : std::nullopt;
}

bool StreamSummary::KnowsAllLosses() const {
  if (rtp) {
    // A restarted numbering, or numbers far from all others, hide how many are missing.
    return rtp->restarts + rtp->strays == 0;
  }
  return Lost() && cut_frames == 0 && !detail_given_up;
}

Distribution DistributionOf(const Histogram& histogram) {
  Distribution distribution;
  distribution.count = histogram.Count();
  distribution.min = static_cast<double>(histogram.Min());
  distribution.mean = histogram.Mean();
  distribution.max = static_cast<double>(histogram.Max());
  distribution.p50 = histogram.Quantile(0.5);
  distribution.p90 = histogram.Quantile(0.9);
  distribution.p99 = histogram.Quantile(0.99);
  distribution.p999 = histogram.Quantile(0.999);
  return distribution;
}

StreamSummary Summarize(const Stream& stream, const MeasurementSettings& settings) {
  StreamSummary summary;
  const FlowKey& flow = stream.Id().flow;
  summary.source = SourceText(flow);
  summary.destination = DestinationText(flow);
  summary.vlan = VlanText(flow);
  summary.ssrc = stream.Id().ssrc;
  summary.rate = FiguresOf(stream.Rate(), settings.expected_rate);
  summary.first_seen_ns = stream.Rate().FirstNs();
  summary.last_seen_ns = stream.Rate().LastNs();
  summary.silent_at_start = static_cast<double>(stream.SilentAtStartNs());
  summary.silent_at_end = static_cast<double>(stream.SilentAtEndNs());
  summary.longest_silence = static_cast<double>(stream.LongestSilenceNs());
  summary.cut_frames = stream.CutFrames();
  summary.repeated_datagrams = stream.RepeatedDatagrams();
  summary.ended_early = stream.IsClosed();
  summary.detail_given_up = stream.HasGivenUpDetail();
  summary.frames_without_detail = stream.FramesWithoutDetail();
  summary.spacing = FiguresOf(stream.Gaps());
  // A gap that nothing closed any more is one as well.
  summary.spacing.gap.max = summary.longest_silence;
  summary.checksums = stream.Checksums();
  summary.mdi = FiguresOf(stream.Mdi());
  const Availability& seconds = stream.Seconds();
  summary.seconds = {seconds.Seconds(), seconds.ErroredSeconds(), seconds.SeverelyErroredSeconds(),
                     seconds.UnavailableSeconds()};
  if (stream.AsRtp() != nullptr) {
    summary.rtp = FiguresOf(*stream.AsRtp());
  }
  if (stream.Fec() != nullptr) {
    summary.fec = *stream.Fec();
  }
  summary.protects = stream.ProtectedStream();
  summary.is_fec_without_media = stream.MayBeFec();
  if (stream.Ts() != nullptr && stream.Ts()->IsTransportStream()) {
    summary.ts = FiguresOf(*stream.Ts(), stream.Rate().Seconds());
    summary.ts->continuity_errors_as_arrived = stream.ContinuityErrorsAsArrived();
  }
  if (!summary.Lost()) {
    summary.mdi.loss_rate.reset();
  }
  if (stream.Compare() != nullptr) {
    summary.compare = FiguresOf(*stream.Compare());
  }
  return summary;
}

TotalSummary SummarizeTotal(const Measurement& measurement) {
  TotalSummary total;
  const StreamTable& streams = measurement.Streams();
  total.streams = streams.Streams().size();
  total.rate = FiguresOf(measurement.Rate(), std::nullopt);
  total.spacing = FiguresOf(measurement.Gaps());
  total.checksums = measurement.Checksums();
  total.ssrc_changes = streams.SsrcChanges();
  total.malformed_rtp = streams.MalformedRtp();
  total.rtcp_packets = streams.RtcpPackets();
  total.untracked_frames = streams.UntrackedFrames();
  total.given_up = streams.Given();
  total.memory_bytes = measurement.Settings().memory_bytes;
  total.rate.payload_bytes = 0;
  for (const auto& stream : streams.Streams()) {
    AddUp(*stream, total);
  }
  if (total.rate.frame_bytes > 0) {
    total.rate.payload_bit_rate = total.rate.frame_bit_rate *
                                  static_cast<double>(total.rate.payload_bytes) /
                                  static_cast<double>(total.rate.frame_bytes);
  }
  return total;
}

Summary Summarize(const Measurement& measurement, const std::string& source, bool live,
                  const CaptureDrops& drops, StreamDetail detail) {
  Summary summary;
  summary.capture.source = source;
  summary.capture.live = live;
  summary.capture.frames = measurement.CapturedFrames();
  summary.capture.joined_frames = measurement.JoinedFrames();
  summary.capture.clock_steps = measurement.Time().Steps();
  if (measurement.CapturedFrames() > 0) {
    summary.capture.start_ns = measurement.StartNs();
    summary.capture.end_ns = measurement.EndNs();
  }
  summary.capture.drops = drops;
  for (std::size_t i = 0; i < kFrameClasses; ++i) {
    summary.capture.classes[i] = measurement.FramesOf(static_cast<FrameClass>(i));
  }
  summary.total = SummarizeTotal(measurement);
  summary.reorder = measurement.Settings().reorder;
  if (detail == StreamDetail::kNone) {
    return summary;
  }
  for (const auto& stream : measurement.Streams().Streams()) {
    summary.streams.push_back(Summarize(*stream, measurement.Settings()));
  }
  for (const auto& pair : measurement.Streams().Twins()) {
    summary.twins.push_back(
        {pair->Places(), pair->Figures(), Summarize(pair->Combined(), measurement.Settings())});
  }
  return summary;
}

}  // namespace ipplay::measure
