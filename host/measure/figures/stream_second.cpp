// SPDX-License-Identifier: MIT
#include "host/measure/figures/stream_second.h"

#include <algorithm>
#include <utility>

namespace ipplay::measure {
namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;

// The counts from the stream's start on.
StreamSecond TotalsOf(const Stream& stream) {
  StreamSecond totals;
  totals.frames = stream.Rate().Frames();
  totals.frame_bytes = stream.Rate().FrameBytes();
  totals.payload_bytes = stream.Rate().PayloadBytes();
  totals.bad_checksums = stream.Checksums().bad_ip + stream.Checksums().bad_udp;
  totals.duplicates = stream.RepeatedDatagrams();
  if (const Stream::Rtp* rtp = stream.AsRtp()) {
    totals.lost = static_cast<std::int64_t>(rtp->sequence.Lost());
    totals.duplicates = rtp->sequence.Duplicates();
    totals.reordered = rtp->sequence.Reordering().Count();
  }
  const TsAnalysis* ts = stream.Ts();
  if (ts == nullptr || !ts->IsTransportStream()) {
    return totals;
  }
  if (!totals.lost) {
    totals.lost = static_cast<std::int64_t>(ts->MissingPackets());
  }
  const TsCounters counters = ts->Counters();
  totals.ts_packets = counters.packets;
  totals.continuity_errors = counters.continuity_errors;
  totals.errors = ts->Errors();
  totals.second_priority_errors = ts->Indicators().Sum(2);
  totals.third_priority_errors = ts->Indicators().Sum(3);
  const PcrTracker* clock = ts->ReferenceClock();
  totals.pcrs = clock == nullptr ? 0 : clock->Count();
  return totals;
}

template <typename Number>
void Subtract(std::optional<Number>& from, const std::optional<Number>& before) {
  if (from && before) {
    *from -= *before;
  }
}

void Subtract(StreamSecond& from, const StreamSecond& before) {
  for (const auto field :
       {&StreamSecond::frames, &StreamSecond::frame_bytes, &StreamSecond::payload_bytes,
        &StreamSecond::duplicates, &StreamSecond::bad_checksums, &StreamSecond::continuity_errors,
        &StreamSecond::errors, &StreamSecond::second_priority_errors,
        &StreamSecond::third_priority_errors, &StreamSecond::pcrs}) {
    from.*field -= before.*field;
  }
  Subtract(from.lost, before.lost);
  Subtract(from.reordered, before.reordered);
  Subtract(from.ts_packets, before.ts_packets);
}

void AddPeaks(Stream& stream, std::int64_t end_ns, StreamSecond& second) {
  const Stream::Peaks peaks = stream.TakePeaks();
  const std::int64_t since_last_ns = std::max<std::int64_t>(0, end_ns - stream.Rate().LastNs());
  second.longest_gap_ns = std::max(peaks.gap_ns, since_last_ns);
  second.delay_factor_ns = peaks.delay_factor_ns;
  if (second.frames == 0) {
    second.delay_factor_ns = static_cast<double>(since_last_ns);
  }
  if (peaks.pcr.any) {
    second.pcr_spread_ns = peaks.pcr.high_ns - peaks.pcr.low_ns;
  }
  if (const Stream::Rtp* rtp = stream.AsRtp(); rtp != nullptr && rtp->jitter.IsDefined()) {
    second.jitter_ns = rtp->jitter.Current();
  }
}

}  // namespace

SecondCutter::SecondCutter(SecondSink& sink, std::int64_t start_ns)
    : sink_(sink), start_ns_(start_ns), next_ns_((start_ns / kSecondNs + 1) * kSecondNs) {}

void SecondCutter::EndSeconds(std::int64_t now_ns,
                              std::span<const std::unique_ptr<Stream>> streams) {
  for (std::int64_t ended = 0; ended < kMostAtOnce && now_ns >= next_ns_; ++ended) {
    EndSecond(next_ns_, streams);
  }
  if (now_ns >= next_ns_) {
    EndSecond(now_ns / kSecondNs * kSecondNs, streams);
  }
}

void SecondCutter::EndSecond(std::int64_t end_ns,
                             std::span<const std::unique_ptr<Stream>> streams) {
  before_.resize(streams.size());
  for (std::size_t number = 0; number < streams.size(); ++number) {
    Stream& stream = *streams[number];
    StreamSecond second = TotalsOf(stream);
    const StreamSecond before = std::exchange(before_[number], second);
    Subtract(second, before);
    AddPeaks(stream, end_ns, second);
    second.stream = static_cast<std::uint32_t>(number);
    second.start_ns = start_ns_;
    second.length_ns = end_ns - start_ns_;
    sink_.Add(second);
  }
  start_ns_ = end_ns;
  next_ns_ = (end_ns / kSecondNs + 1) * kSecondNs;
}

void SecondCutter::Finish(std::int64_t end_ns, std::span<const std::unique_ptr<Stream>> streams) {
  EndSecond(std::max(end_ns, start_ns_), streams);
}

}  // namespace ipplay::measure
