// SPDX-License-Identifier: MIT
// Takes hostile frames of every link type apart, and nothing else: many millions of them in a
// short time.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "host/measure/capture/frame_decoder.h"
#include "host/measure/figures/rtp_header.h"

using namespace ipplay::measure;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  const auto link = static_cast<LinkType>(data[0] % 4);
  const std::span frame(data + 2, size - 2);
  DecodedFrame decoded;
  if (DecodeFrame(link, {frame, frame.size() + data[1]}, true, decoded) != FrameClass::kUdp) {
    return 0;
  }
  // The payload lies within the frame, and is never longer than its header says.
  if (decoded.payload.size() > decoded.payload_length) {
    std::abort();
  }
  if (!decoded.payload.empty() &&
      (decoded.payload.data() < frame.data() ||
       decoded.payload.data() + decoded.payload.size() > frame.data() + frame.size())) {
    std::abort();
  }
  const auto rtp = ParseRtpHeader(decoded.payload, decoded.payload_length);
  if (rtp && rtp->header_length + rtp->padding > decoded.payload_length) {
    std::abort();
  }
  return 0;
}
