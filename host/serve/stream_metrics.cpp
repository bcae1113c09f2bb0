// SPDX-License-Identifier: MIT
#include <array>

#include "host/serve/metric_family.h"
#include "host/serve/metrics.h"

namespace ipplay::serve {
namespace {

using measure::StreamSummary;
using prometheus::MetricType;

constexpr double kSecond = 1e9;  // in nanoseconds
constexpr double kPpm = 1e-6;
constexpr std::size_t kMostStreams = 1000;  // of a meter; a table of them is no monitoring
constexpr std::array<std::string_view, 3> kStates{"running", "ended", "failed"};

std::optional<double> Seconds(const std::optional<double>& ns) {
  return ns ? std::optional(*ns / kSecond) : std::nullopt;
}

// A stream, and its last second where that is known.
struct MeasuredStream {
  Labels labels;
  const StreamSummary* stream = nullptr;
  const measure::StreamSecond* second = nullptr;
};

struct MeterSnapshot {
  std::string name;
  std::string source;
  Meter::Figures figures;
};

Labels LabelsOf(const MeterSnapshot& meter, const StreamSummary& stream) {
  Labels labels{
      {"meter", meter.name}, {"source", stream.source}, {"destination", stream.destination}};
  if (!stream.vlan.empty()) {
    labels = With(std::move(labels), "vlan", stream.vlan);
  }
  return stream.ssrc ? With(std::move(labels), "ssrc", std::to_string(*stream.ssrc)) : labels;
}

std::vector<MeasuredStream> StreamsOf(const std::vector<MeterSnapshot>& meters) {
  std::vector<MeasuredStream> streams;
  for (const MeterSnapshot& meter : meters) {
    if (!meter.figures.summary) {
      continue;
    }
    const auto& all = meter.figures.summary->streams;
    for (std::uint32_t i = 0; i < std::min(all.size(), kMostStreams); ++i) {
      const auto second = meter.figures.seconds.find(i);
      streams.push_back({LabelsOf(meter, all[i]), &all[i],
                         second == meter.figures.seconds.end() ? nullptr : &second->second});
    }
  }
  return streams;
}

// One value of each stream, where it has one.
template <typename Value>
void AddEach(const std::vector<MeasuredStream>& streams, Families& families, const char* name,
             const char* help, MetricType type, const Value& value) {
  MetricFamily family(name, help, type);
  for (const MeasuredStream& measured : streams) {
    family.Add(measured.labels, value(measured));
  }
  families.push_back(family.Take());
}

void AddMeters(const std::vector<MeterSnapshot>& meters, Families& families) {
  MetricFamily states("ipplay_meter_state", "1 for the state that the meter is in.",
                      MetricType::Gauge);
  MetricFamily frames("ipplay_meter_frames_total", "UDP frames that were measured.",
                      MetricType::Counter);
  MetricFamily drops("ipplay_meter_capture_dropped_frames_total",
                     "Frames that the capture missed: by the kernel, or by the adapter.",
                     MetricType::Counter);
  for (const MeterSnapshot& meter : meters) {
    const Labels labels{{"meter", meter.name}, {"adapter", meter.source}};
    states.AddStates(labels, kStates, NameOf(meter.figures.state));
    if (const auto& summary = meter.figures.summary) {
      frames.Add(labels, summary->total.rate.frames);
      drops.Add(With(labels, "by", "kernel"), summary->capture.drops.by_kernel);
      drops.Add(With(labels, "by", "adapter"), summary->capture.drops.by_adapter);
    }
  }
  for (MetricFamily* const family : {&states, &frames, &drops}) {
    families.push_back(family->Take());
  }
}

void AddCounts(const std::vector<MeasuredStream>& streams, Families& families) {
  AddEach(streams, families, "ipplay_stream_frames_total", "Frames of the stream.",
          MetricType::Counter, [](const auto& measured) { return measured.stream->rate.frames; });
  AddEach(streams, families, "ipplay_stream_frame_bytes_total", "Bytes of its frames.",
          MetricType::Counter,
          [](const auto& measured) { return measured.stream->rate.frame_bytes; });
  AddEach(streams, families, "ipplay_stream_payload_bytes_total", "Bytes of its UDP payload.",
          MetricType::Counter,
          [](const auto& measured) { return measured.stream->rate.payload_bytes; });
  AddEach(streams, families, "ipplay_stream_lost_packets_total",
          "Packets that are missing: of RTP, or else of the transport stream.", MetricType::Counter,
          [](const auto& measured) {
            const auto lost = measured.stream->Lost();
            return lost ? std::optional(static_cast<double>(*lost)) : std::nullopt;
          });
  const auto of_rtp = [](const auto& member) {
    return [member](const MeasuredStream& measured) {
      const auto& rtp = measured.stream->rtp;
      return rtp ? std::optional(static_cast<double>((*rtp).*member)) : std::nullopt;
    };
  };
  AddEach(streams, families, "ipplay_stream_duplicate_packets_total",
          "RTP packets that came twice.", MetricType::Counter,
          of_rtp(&measure::RtpFigures::duplicates));
  AddEach(streams, families, "ipplay_stream_reordered_packets_total",
          "RTP packets that came behind later ones.", MetricType::Counter,
          of_rtp(&measure::RtpFigures::reordered));
}

void AddChecksums(const std::vector<MeasuredStream>& streams, Families& families) {
  MetricFamily errors("ipplay_stream_checksum_errors_total", "Wrong checksums by their protocol.",
                      MetricType::Counter);
  for (const MeasuredStream& measured : streams) {
    errors.Add(With(measured.labels, "protocol", "ipv4"), measured.stream->checksums.bad_ip);
    errors.Add(With(measured.labels, "protocol", "udp"), measured.stream->checksums.bad_udp);
  }
  families.push_back(errors.Take());
}

void AddIndicators(const std::vector<MeasuredStream>& streams, Families& families) {
  MetricFamily errors("ipplay_stream_tr101290_errors_total",
                      "Errors by the indicators of ETSI TR 101 290 that were measured.",
                      MetricType::Counter);
  for (const MeasuredStream& measured : streams) {
    if (!measured.stream->ts) {
      continue;
    }
    for (const auto& indicator : measured.stream->ts->indicators) {
      if (indicator.state.measured) {
        errors.Add(With(With(measured.labels, "indicator", indicator.info->clause), "priority",
                        std::to_string(indicator.info->priority)),
                   indicator.state.count);
      }
    }
  }
  families.push_back(errors.Take());
}

void AddTransportStream(const std::vector<MeasuredStream>& streams, Families& families) {
  const auto ts = [](const auto& figure) {
    return [figure](const MeasuredStream& measured) -> std::optional<double> {
      return measured.stream->ts ? figure(*measured.stream->ts) : std::nullopt;
    };
  };
  const auto clock = [&ts](const auto& figure) {
    return ts([figure](const measure::TsFigures& figures) -> std::optional<double> {
      const auto* const reference = figures.Reference();
      return reference == nullptr ? std::nullopt : figure(*reference);
    });
  };
  AddEach(streams, families, "ipplay_stream_ts_packets_total", "Transport packets.",
          MetricType::Counter, ts([](const auto& figures) {
            return std::optional(static_cast<double>(figures.counters.packets));
          }));
  AddEach(streams, families, "ipplay_stream_continuity_errors_total",
          "Breaks of the continuity counters.", MetricType::Counter, ts([](const auto& figures) {
            return std::optional(static_cast<double>(figures.counters.continuity_errors));
          }));
  AddEach(streams, families, "ipplay_stream_pcr_accuracy_peak_to_peak_seconds",
          "Accuracy of the reference clock's PCRs over the measurement.", MetricType::Gauge,
          clock([](const auto& pcr) { return Seconds(pcr.accuracy_spread); }));
  AddEach(streams, families, "ipplay_stream_pcr_frequency_offset_ratio",
          "How much faster the reference clock is than this machine's.", MetricType::Gauge,
          clock([](const auto& pcr) -> std::optional<double> {
            const auto& offset = pcr.frequency_offset_ppm;
            return offset ? std::optional(*offset * kPpm) : std::nullopt;
          }));
}

void AddLastSecond(const std::vector<MeasuredStream>& streams, Families& families) {
  const auto second = [](const auto& figure) {
    return [figure](const MeasuredStream& measured) -> std::optional<double> {
      return measured.second == nullptr ? std::nullopt : figure(*measured.second);
    };
  };
  AddEach(streams, families, "ipplay_stream_mdi_delay_factor_seconds",
          "Delay factor of the last second (RFC 4445).", MetricType::Gauge,
          second([](const auto& last) { return Seconds(last.delay_factor_ns); }));
  AddEach(streams, families, "ipplay_stream_mdi_lost_packets",
          "Packets lost in the last second (RFC 4445: media loss rate).", MetricType::Gauge,
          second([](const auto& last) {
            return last.lost ? std::optional(static_cast<double>(*last.lost)) : std::nullopt;
          }));
  AddEach(streams, families, "ipplay_stream_longest_gap_seconds",
          "Longest time between frames in the last second.", MetricType::Gauge,
          second([](const auto& last) {
            return std::optional(static_cast<double>(last.longest_gap_ns) / kSecond);
          }));
  AddEach(streams, families, "ipplay_stream_jitter_seconds",
          "Interarrival jitter at the end of the last second (RFC 3550).", MetricType::Gauge,
          second([](const auto& last) { return Seconds(last.jitter_ns); }));
  AddEach(streams, families, "ipplay_stream_pcr_arrival_peak_to_peak_seconds",
          "Arrival of the PCRs of the last second against their values.", MetricType::Gauge,
          second([](const auto& last) { return Seconds(last.pcr_spread_ns); }));
}

}  // namespace

void AddStreamMetrics(const std::vector<std::shared_ptr<const Meter>>& meters, Families& families) {
  std::vector<MeterSnapshot> snapshots;
  for (const auto& meter : meters) {
    snapshots.push_back({meter->Order().name, meter->Order().options.source, meter->Read()});
  }
  AddMeters(snapshots, families);
  const auto streams = StreamsOf(snapshots);
  AddCounts(streams, families);
  AddChecksums(streams, families);
  AddIndicators(streams, families);
  AddTransportStream(streams, families);
  AddLastSecond(streams, families);
}

}  // namespace ipplay::serve
