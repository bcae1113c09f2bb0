// SPDX-License-Identifier: MIT
#include "host/measure/figures/measurement.h"

#include <algorithm>

namespace ipplay::measure {
namespace {

// Up to the year 2116, so that differences and sums of times stay within 64 bits.
constexpr std::int64_t kLatestNs = (std::int64_t{1} << 62) - 1;
constexpr std::int64_t kWatchIntervalNs = 100'000'000;

}  // namespace

void Measurement::Add(LinkType link, const CapturedFrame& captured) {
  if (complete_) {
    return;
  }
  const CapturedFrame frame = OnOneClock(captured);
  if (settings_.max_duration_ns && rate_.Frames() > 0 &&
      frame.time_ns - rate_.FirstNs() >= *settings_.max_duration_ns) {
    complete_ = true;
    end_ns_ = std::max(end_ns_, rate_.FirstNs() + *settings_.max_duration_ns);
    return;
  }
  if (captured_frames_++ == 0) {
    start_ns_ = end_ns_ = frame.time_ns;
    if (second_sink_ != nullptr) {
      seconds_.emplace(*second_sink_, start_ns_);
    }
  }
  PassTime(frame.time_ns);
  end_ns_ = std::max(end_ns_, frame.time_ns);
  DecodedFrame decoded;
  const FrameClass frame_class = DecodeFrame(link, frame.data, settings_.check_udp, decoded);
  ++classes_[static_cast<std::size_t>(frame_class)];
  if (frame_class != FrameClass::kUdp) {
    return;
  }

  const auto bytes = static_cast<std::uint32_t>(frame.data.wire_length);
  const std::int64_t gap_ns =
      rate_.Frames() == 0 ? 0 : std::max<std::int64_t>(0, frame.time_ns - rate_.LastNs());
  rate_.Add(frame.time_ns, bytes, decoded.payload_length);
  spacing_.Add(frame.time_ns, bytes, true);
  arrivals_.At(frame.time_ns).Add(bytes, gap_ns);
  checksums_.Count(decoded);
  streams_.Add(frame.time_ns, bytes, decoded);
  complete_ = settings_.max_frames && rate_.Frames() >= *settings_.max_frames;
}

CapturedFrame Measurement::OnOneClock(const CapturedFrame& captured) {
  const std::int64_t time_ns =
      clock_.Take(std::clamp<std::int64_t>(captured.time_ns, 0, kLatestNs));
  if (clock_.LastStepNs()) {
    events_.Report(
        {.time_ns = time_ns, .kind = EventKind::kClockStep, .amount = *clock_.LastStepNs()});
  }
  return {std::clamp<std::int64_t>(time_ns, 0, kLatestNs), captured.data};
}

void Measurement::AdvanceTo(std::int64_t now_ns) {
  if (captured_frames_ > 0) {
    PassTime(clock_.ToTime(now_ns));
  }
}

void Measurement::PassTime(std::int64_t now_ns) {
  if (now_ns >= next_watch_ns_) {
    next_watch_ns_ = now_ns + kWatchIntervalNs;
    for (const auto& stream : streams_.Streams()) {
      stream->WatchSilence(now_ns);
    }
  }
  if (seconds_) {
    seconds_->AdvanceTo(now_ns, streams_.Streams());
  }
}

void Measurement::Finish(std::optional<std::int64_t> end_ns) {
  // A run that has all that it was asked for ends with it, not when somebody looks at the clock.
  if (end_ns && !complete_) {
    end_ns_ = std::max(end_ns_, std::clamp<std::int64_t>(clock_.ToTime(*end_ns), 0, kLatestNs));
  }
  spacing_.EndBurst();
  // What shows in the end only is of the last second, which ends with the measurement.
  PassTime(end_ns_ - 1);
  streams_.Finish(start_ns_, end_ns_);
  if (seconds_) {
    seconds_->Finish(end_ns_, streams_.Streams());
  }
}

}  // namespace ipplay::measure
