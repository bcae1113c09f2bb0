// SPDX-License-Identifier: MIT
#include "host/measure/figures/measurement.h"

#include <algorithm>

#include "host/base/header_lengths.h"
#include "host/measure/figures/joined_datagrams.h"

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

  AddFrame(frame.time_ns, static_cast<std::uint32_t>(frame.data.wire_length), decoded);
}

// On the wire each datagram that was joined had headers of its own, and the checksum is left to
// whoever takes them apart.
void Measurement::AddFrame(std::int64_t time_ns, std::uint32_t bytes, DecodedFrame& decoded) {
  const std::size_t length =
      decoded.IsComplete() && settings_.rtp != RtpMode::kNever ? JoinedLength(decoded.payload) : 0;
  const std::size_t ip_length =
      decoded.payload_length + kUdpHeaderBytes +
      (decoded.flow.ip_version == 4 ? kIpv4HeaderBytes : kIpv6HeaderBytes);
  if (length > 0 || ip_length > settings_.longest_ip_packet) {
    ++joined_frames_;
    decoded.udp_checksum = UdpChecksum::kUnchecked;
  }
  if (length == 0) {
    AddDatagram(time_ns, bytes, decoded);
    return;
  }
  const std::uint32_t headers = bytes - std::min(bytes, decoded.payload_length);
  DecodedFrame part = decoded;
  for (auto rest = decoded.payload; !rest.empty() && !complete_;
       rest = rest.subspan(part.payload.size())) {
    part.payload = rest.first(std::min(length, rest.size()));
    part.payload_length = static_cast<std::uint32_t>(part.payload.size());
    AddDatagram(time_ns, headers + part.payload_length, part);
    part.bad_ip_checksum = false;  // one header was captured
  }
}

void Measurement::AddDatagram(std::int64_t time_ns, std::uint32_t bytes,
                              const DecodedFrame& decoded) {
  const std::int64_t gap_ns =
      rate_.Frames() == 0 ? 0 : std::max<std::int64_t>(0, time_ns - rate_.LastNs());
  rate_.Add(time_ns, bytes, decoded.payload_length);
  spacing_.Add(time_ns, bytes, true);
  arrivals_.At(time_ns).Add(bytes, gap_ns);
  checksums_.Count(decoded);
  streams_.Add(time_ns, bytes, decoded);
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
