// SPDX-License-Identifier: MIT
// The whole measurement: takes captured frames, keeps every figure.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "host/measure/capture/captured_frame.h"
#include "host/measure/figures/event_log.h"
#include "host/measure/figures/history.h"
#include "host/measure/figures/rate_meter.h"
#include "host/measure/figures/settings.h"
#include "host/measure/figures/spacing.h"
#include "host/measure/figures/step_free_clock.h"
#include "host/measure/figures/stream_second.h"
#include "host/measure/figures/stream_table.h"

namespace ipplay::measure {

class Measurement : public FrameSink {
 public:
  explicit Measurement(const MeasurementSettings& settings)
      : settings_(settings), streams_(settings, &events_) {}

  void Add(LinkType link, const CapturedFrame& frame) override;
  // The frames or the time that were asked for are over.
  bool IsComplete() const override { return complete_; }
  // After the last frame, once. The measurement ends at `end_ns`, by the clock of the time stamps,
  // or with its last frame.
  void Finish(std::optional<std::int64_t> end_ns = std::nullopt);

  // Each second of each stream goes to `sink` as it ends; call it before the first frame.
  void ReportSecondsTo(SecondSink* sink) { second_sink_ = sink; }
  // No frame is still to come that the capture's clock stamps before `now_ns`, as far as one can
  // tell.
  void AdvanceTo(std::int64_t now_ns);

  // From the first frame of any kind to the end; what is silent between them is measured as well.
  std::int64_t StartNs() const { return start_ns_; }
  std::int64_t EndNs() const { return end_ns_; }

  std::uint64_t FramesOf(FrameClass frame_class) const {
    return classes_[static_cast<std::size_t>(frame_class)];
  }
  const StepFreeClock& Time() const { return clock_; }
  // Frames of several datagrams that the kernel has joined; of RTP they are taken apart.
  std::uint64_t JoinedFrames() const { return joined_frames_; }
  std::uint64_t CapturedFrames() const { return captured_frames_; }

  // Over all UDP frames, whatever their stream.
  const RateMeter& Rate() const { return rate_; }
  const Spacing& Gaps() const { return spacing_; }
  const ChecksumCounters& Checksums() const { return checksums_; }
  const TimeSeries<ArrivalPoint>& Arrivals() const { return arrivals_; }

  const StreamTable& Streams() const { return streams_; }
  // Events with their times. Only the thread that adds frames may report into it from outside.
  EventLog& Events() { return events_; }
  const EventLog& Events() const { return events_; }

  const MeasurementSettings& Settings() const { return settings_; }

 private:
  CapturedFrame OnOneClock(const CapturedFrame& captured);
  void PassTime(std::int64_t now_ns);
  void AddFrame(std::int64_t time_ns, std::uint32_t bytes, DecodedFrame& decoded);
  void AddDatagram(std::int64_t time_ns, std::uint32_t bytes, const DecodedFrame& decoded);

  MeasurementSettings settings_;
  std::array<std::uint64_t, kFrameClasses> classes_{};
  std::uint64_t captured_frames_ = 0;
  std::uint64_t joined_frames_ = 0;
  StepFreeClock clock_;
  std::int64_t start_ns_ = 0;
  std::int64_t end_ns_ = 0;
  bool complete_ = false;
  RateMeter rate_;
  Spacing spacing_{SpacingSettings{}};
  ChecksumCounters checksums_;
  TimeSeries<ArrivalPoint> arrivals_{kPlotIntervalNs, kFinestPlotIntervalNs};
  EventLog events_;
  StreamTable streams_;
  std::int64_t next_watch_ns_ = 0;  // for silence
  SecondSink* second_sink_ = nullptr;
  std::optional<SecondCutter> seconds_;
};

}  // namespace ipplay::measure
