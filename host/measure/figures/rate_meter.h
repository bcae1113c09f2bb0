// SPDX-License-Identifier: MIT
// Frames and bytes over the time in which they arrived.
#pragma once

#include <algorithm>
#include <cstdint>

#include "host/measure/figures/line_fit.h"

namespace ipplay::measure {

class RateMeter {
 public:
  void Add(std::int64_t time_ns, std::uint32_t frame_bytes, std::uint32_t payload_bytes) {
    if (frames_ == 0) {
      first_ns_ = last_ns_ = time_ns;
    }
    last_frame_bytes_ = frame_bytes;
    last_payload_bytes_ = payload_bytes;
    last_ns_ = std::max(last_ns_, time_ns);
    fit_.Add(static_cast<double>(frame_bytes_), static_cast<double>(time_ns - first_ns_));
    ++frames_;
    frame_bytes_ += frame_bytes;
    payload_bytes_ += payload_bytes;
  }

  std::uint64_t Frames() const { return frames_; }
  std::uint64_t FrameBytes() const { return frame_bytes_; }
  std::uint64_t PayloadBytes() const { return payload_bytes_; }
  std::int64_t FirstNs() const { return first_ns_; }
  std::int64_t LastNs() const { return last_ns_; }
  double Seconds() const { return static_cast<double>(last_ns_ - first_ns_) * 1e-9; }

  // Per second. N frames span N-1 gaps, each of which is its first frame's, so the last frame is
  // not counted; 0 below two frames.
  double FrameRate() const { return frames_ == 0 ? 0 : PerSecond(frames_ - 1); }
  double FrameBitRate() const { return PerSecond(frame_bytes_ - last_frame_bytes_) * 8; }
  double PayloadBitRate() const { return PerSecond(payload_bytes_ - last_payload_bytes_) * 8; }

  // Slope of the least-squares line through the arrivals: one late first or last frame, which
  // shifts the mean rate of a short run, hardly moves it. 0 below two frames.
  double FittedFrameBitRate() const { return fit_.Xy() > 0 ? 8e9 * fit_.Xx() / fit_.Xy() : 0; }

 private:
  double PerSecond(std::uint64_t amount) const {
    return last_ns_ > first_ns_ ? static_cast<double>(amount) / Seconds() : 0;
  }

  std::uint64_t frames_ = 0;
  std::uint64_t frame_bytes_ = 0;    // whole frames as captured, without the check sequence
  std::uint64_t payload_bytes_ = 0;  // behind the UDP and RTP headers
  std::int64_t first_ns_ = 0;
  std::int64_t last_ns_ = 0;
  std::uint32_t last_frame_bytes_ = 0;
  std::uint32_t last_payload_bytes_ = 0;
  LineFit fit_;  // of the time over the bytes before it
};

}  // namespace ipplay::measure
