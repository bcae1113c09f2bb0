// SPDX-License-Identifier: MIT
// A frame as a capture gives it, and who takes it.
#pragma once

#include <cstdint>

#include "host/measure/capture/frame_decoder.h"

namespace ipplay::measure {

struct CapturedFrame {
  std::int64_t time_ns = 0;  // since 1970
  CapturedBytes data;
};

class FrameSink {
 public:
  FrameSink() = default;
  FrameSink(const FrameSink&) = delete;
  FrameSink& operator=(const FrameSink&) = delete;
  virtual ~FrameSink() = default;

  virtual void Add(LinkType link, const CapturedFrame& frame) = 0;
  // Takes no more frames.
  virtual bool IsComplete() const = 0;
};

}  // namespace ipplay::measure
