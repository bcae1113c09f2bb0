// SPDX-License-Identifier: MIT
#include "host/measure/figures/measurement.h"

#include <algorithm>

namespace ipplay::measure {

void Measurement::Add(LinkType link, const CapturedFrame& frame) {
  if (complete_) {
    return;
  }
  if (settings_.max_duration_ns && rate_.Frames() > 0 &&
      frame.time_ns - rate_.FirstNs() >= *settings_.max_duration_ns) {
    complete_ = true;
    return;
  }
  ++captured_frames_;
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

void Measurement::Finish() {
  spacing_.EndBurst();
  streams_.Finish();
}

}  // namespace ipplay::measure
