// SPDX-License-Identifier: MIT
// The figures of a measurement as plain values, which the table, the JSON text, the report and the
// limits all take theirs from. docs/measuring.md defines every one. Times are in nanoseconds, rates
// in bits per second.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/measure/capture/capture_source.h"
#include "host/measure/figures/measurement.h"
#include "host/measure/results/run_info.h"

namespace ipplay::measure {

struct Distribution {
  std::uint64_t count = 0;
  double min = 0;
  double mean = 0;
  double p50 = 0;
  double p90 = 0;
  double p99 = 0;
  double p999 = 0;
  double max = 0;
};

struct RateFigures {
  std::uint64_t frames = 0;
  std::uint64_t frame_bytes = 0;
  std::uint64_t payload_bytes = 0;
  double seconds = 0;
  double frames_per_second = 0;
  double frame_bit_rate = 0;
  double payload_bit_rate = 0;
  std::optional<double> error_ppm;  // against the expected rate
};

struct SpacingFigures {
  Distribution gap;
  Distribution gap_error;
  std::optional<LineExtent::Range> grid;  // low is 0 or less, high is 0 or more
  std::uint64_t clumped_frames = 0;
  Distribution burst_length;  // in frames
  std::uint64_t time_reversals = 0;
};

struct RtpFigures {
  std::uint8_t payload_type = 0;
  std::uint64_t payload_type_changes = 0;
  std::uint64_t received = 0;
  std::uint64_t lost = 0;
  std::uint64_t loss_periods = 0;
  std::uint64_t longest_loss = 0;
  std::uint64_t duplicates = 0;
  std::uint64_t reordered = 0;
  Distribution reorder_distance;  // in sequence numbers
  std::uint64_t repaired = 0;     // of the reordered: in time to be put in their places
  std::uint64_t strays = 0;
  std::uint64_t restarts = 0;
  bool has_jitter = false;  // the time stamps moved
  double jitter = 0;
  double jitter_mean = 0;
  double jitter_max = 0;
};

struct SecondsFigures {  // as Availability
  std::uint64_t seconds = 0;
  std::uint64_t errored = 0;
  std::uint64_t severely_errored = 0;
  std::uint64_t unavailable = 0;
};

struct MeanAndMax {
  double mean = 0;
  double max = 0;
};

// Without a value what could not be measured.
struct MdiFigures {
  std::uint64_t intervals = 0;
  bool all_delay_factors = false;          // every interval has one
  std::optional<MeanAndMax> delay_factor;  // of those that have one
  std::optional<MeanAndMax> loss_rate;
};

// Without a value what could not be measured.
struct PcrFigures {
  std::uint64_t count = 0;  // 0: the tables name the PID, and none came
  IntervalFigures interval;
  std::uint64_t repetition_errors = 0;
  std::uint64_t discontinuity_errors = 0;
  std::uint64_t accuracy_errors = 0;
  std::uint64_t late = 0;
  std::optional<double> accuracy_spread;
  std::optional<double> arrival_spread;
  std::optional<double> frequency_offset_ppm;
  std::optional<double> bit_rate;
};

struct PidSummary {
  std::uint16_t pid = 0;
  std::uint64_t packets = 0;
  std::optional<double> bit_rate;  // none where all packets came at once
  std::uint64_t continuity_errors = 0;
  std::optional<PcrFigures> pcr;
};

struct ServiceSummary {
  std::uint16_t number = 0;
  std::string name;
  std::string provider;
  Service tables;                  // what the PMT says
  std::optional<double> bit_rate;  // of its PMT, components and clock
};

struct TableSummary {
  TableKey key;
  TableState state;
};

struct IndicatorSummary {
  const IndicatorInfo* info = nullptr;
  IndicatorState state;
};

struct TsFigures {
  TsCounters counters;                             // missing_packets without the late ones
  std::uint64_t continuity_errors_as_arrived = 0;  // before the repairs that RTP makes possible
  std::size_t packet_length = 0;
  std::uint64_t sync_losses = 0;
  std::uint64_t sync_byte_errors = 0;
  std::vector<PidSummary> pids;
  std::optional<std::uint16_t> reference_pid;  // the first one that carried a PCR
  std::uint64_t errors = 0;                    // as TsAnalysis::Errors
  std::uint64_t second_priority_errors = 0;    // without accuracy
  std::uint64_t third_priority_errors = 0;
  std::optional<std::uint64_t> missing_by_pcr;
  std::optional<std::uint16_t> stream_id;  // transport_stream_id
  std::vector<IndicatorSummary> indicators;
  std::vector<TableSummary> tables;
  std::vector<ServiceSummary> services;
  std::uint64_t left_out = 0;  // services and tables of a stream with too many

  const PcrFigures* Reference() const;
  // The larger estimate of the missing packets: by counters or by PCRs.
  std::uint64_t Missing() const;
};

struct CompareFigures {
  std::uint64_t equal = 0;
  std::uint64_t different = 0;
  std::uint64_t unplaced = 0;
  std::uint64_t bytes_skipped = 0;
  std::optional<PayloadDifference> first_difference;
};

struct StreamSummary {
  std::string source;
  std::string destination;
  std::string vlan;
  std::optional<std::uint32_t> ssrc;
  std::int64_t first_seen_ns = 0;  // since 1970
  std::int64_t last_seen_ns = 0;
  double silent_at_start = 0;  // of the measurement, before the first frame
  double silent_at_end = 0;
  double longest_silence = 0;  // gaps and both ends
  std::uint64_t cut_frames = 0;
  std::uint64_t repeated_datagrams = 0;  // without RTP
  bool ended_early = false;              // no more of it was taken, for lack of memory
  bool detail_given_up = false;          // the look into its transport packets, likewise
  std::uint64_t frames_without_detail = 0;
  RateFigures rate;
  SpacingFigures spacing;
  ChecksumCounters checksums;
  MdiFigures mdi;
  SecondsFigures seconds;
  std::optional<RtpFigures> rtp;
  std::optional<FecCounters> fec;         // where other streams are FEC of this one
  std::optional<std::uint32_t> protects;  // FEC: the place of the stream that it protects
  bool is_fec_without_media = false;      // FEC: that stream did not come
  std::optional<TsFigures> ts;
  std::optional<CompareFigures> compare;

  // Packets that are known to be missing: by RTP, or else by the transport stream; none where
  // neither can tell.
  std::optional<std::uint64_t> Lost() const;
  // Packets that stay lost behind FEC; none where that is not known.
  std::optional<std::uint64_t> Unrepaired() const;
  // No others can be missing, but at its ends.
  bool KnowsAllLosses() const;
};

// Two streams that are the same RTP on two paths, by their places.
struct TwinSummary {
  std::array<std::uint32_t, kTwinPaths> streams{};
  TwinFigures figures;
  StreamSummary combined;

  // Packets that neither path has and FEC has not repaired; none where that is not known.
  std::optional<std::uint64_t> Unrepaired() const;
};

struct TotalSummary {
  std::uint64_t streams = 0;
  RateFigures rate;
  SpacingFigures spacing;
  ChecksumCounters checksums;
  std::uint64_t lost = 0;             // RTP packets
  std::uint64_t lost_ts_packets = 0;  // of streams without RTP; the larger estimate
  std::uint64_t rtp_expected = 0;     // packets that came or are lost
  std::uint64_t ts_expected = 0;      // transport packets of streams without RTP, likewise
  std::uint64_t repeated_datagrams = 0;
  std::uint64_t cut_frames = 0;
  std::uint64_t duplicates = 0;
  std::uint64_t reordered = 0;
  std::uint64_t ssrc_changes = 0;
  std::uint64_t payload_type_changes = 0;
  std::uint64_t malformed_rtp = 0;
  std::uint64_t rtcp_packets = 0;
  std::uint64_t untracked_frames = 0;
  std::uint64_t memory_bytes = 0;           // that detail is given up for
  GivenUp given_up;                         // for lack of it
  std::uint64_t frames_without_detail = 0;  // of streams whose transport stream was given up
  std::uint64_t ts_errors = 0;
  std::uint64_t ts_second_priority_errors = 0;
  std::uint64_t ts_third_priority_errors = 0;
  std::uint64_t different_datagrams = 0;
};

struct CaptureSummary {
  std::string source;  // device or file
  bool live = false;
  std::uint64_t joined_frames = 0;  // of several datagrams, by the kernel
  std::uint64_t clock_steps = 0;    // of the time stamps
  // Since 1970, of the first frame of any kind and of the measurement's end; none without frames.
  std::optional<std::int64_t> start_ns;
  std::optional<std::int64_t> end_ns;
  std::string broken_off;    // why it ended early; empty where it did not
  std::uint64_t frames = 0;  // of every kind
  CaptureDrops drops;
  std::array<std::uint64_t, kFrameClasses> classes{};

  // Frames that the capture lost look like lost, late and clumped ones.
  bool IsSpoiled() const { return drops.by_kernel + drops.by_adapter > 0; }
};

struct Summary {
  RunInfo run;
  CaptureSummary capture;
  TotalSummary total;
  std::vector<StreamSummary> streams;
  std::vector<TwinSummary> twins;
  ReorderLimits reorder;  // of the RTP of all streams

  // Frames that may have been of a stream, and that no figure knows.
  std::uint64_t FramesNotMeasured() const;
};

Distribution DistributionOf(const Histogram& histogram);
StreamSummary Summarize(const Stream& stream, const MeasurementSettings& settings);
TotalSummary SummarizeTotal(const Measurement& measurement);
enum class StreamDetail { kAll, kNone };
// All of it, which takes a while with thousands of streams, or the sums only.
Summary Summarize(const Measurement& measurement, const std::string& source, bool live,
                  const CaptureDrops& drops, StreamDetail detail = StreamDetail::kAll);

}  // namespace ipplay::measure
