// SPDX-License-Identifier: MIT
// Finds out which streams are forward error correction, and of which others: those to the port two
// (columns) or four (rows) above a stream of RTP (SMPTE ST 2022-1).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/measure/capture/frame_decoder.h"
#include "host/measure/figures/fec_datagram.h"
#include "host/measure/figures/rtp_header.h"
#include "host/measure/figures/stream.h"

namespace ipplay::measure {

class FecPairing {
 public:
  using Streams = std::vector<std::unique_ptr<Stream>>;

  // `memory_bytes` in all for what is kept of streams until it is known whether they have FEC.
  explicit FecPairing(std::uint64_t memory_bytes) : most_awaiting_(memory_bytes / kAwaitingBytes) {}

  // `streams` has got one more, with RTP.
  void AddStream(const Streams& streams);
  // Before a frame of a stream that may be FEC is added to it.
  void Judge(Stream& stream, const DecodedFrame& frame, const RtpHeader& rtp,
             const Streams& streams);
  // Before a frame of a stream that is FEC is added to it: its media may go on with another SSRC.
  void FollowMedia(Stream& stream, const DecodedFrame& frame, const RtpHeader& rtp,
                   const Streams& streams) const;

 private:
  static constexpr std::uint64_t kAwaitingBytes = 400'000;

  void Remember(const Streams& streams, std::size_t place);
  // The place of the stream that it protects; none where it did not come.
  std::optional<std::uint32_t> MediaOf(const FecDatagram& fec, const FlowKey& key,
                                       const Streams& streams) const;
  // The place of the stream so many ports below; none where there is none that may be protected.
  std::optional<std::uint32_t> Below(const FlowKey& fec, std::uint16_t ports,
                                     const Streams& streams) const;

  const std::uint64_t most_awaiting_;
  std::vector<Stream*> awaiting_;
  // From the first FEC on: the last stream to each destination, whatever its source port.
  std::unordered_map<FlowKey, std::uint32_t, FlowKeyHash> by_destination_;
  bool has_fec_ = false;
};

}  // namespace ipplay::measure
