// SPDX-License-Identifier: MIT
#include "host/measure/figures/fec_pairing.h"

#include <cstdlib>

namespace ipplay::measure {
namespace {

constexpr std::uint8_t kFirstDynamicType = 96;  // RFC 3551, 6
constexpr std::uint16_t kColumnStep = 2;
constexpr std::uint16_t kRowStep = 4;

FlowKey WithoutSourcePort(FlowKey key) {
  key.source_port = 0;
  return key;
}

}  // namespace

void FecPairing::AddStream(const Streams& streams) {
  Stream& stream = *streams.back();
  if (awaiting_.size() >= most_awaiting_) {
    std::erase_if(awaiting_, [](const Stream* other) { return !other->AwaitsFec(); });
  }
  if (awaiting_.size() < most_awaiting_) {
    stream.AwaitFec();
    awaiting_.push_back(&stream);
  }
  if (has_fec_) {
    Remember(streams, streams.size() - 1);
  }
}

void FecPairing::Remember(const Streams& streams, std::size_t place) {
  by_destination_[WithoutSourcePort(streams[place]->Id().flow)] = static_cast<std::uint32_t>(place);
}

void FecPairing::Judge(Stream& stream, const DecodedFrame& frame, const RtpHeader& rtp,
                       const Streams& streams) {
  const auto fec = rtp.payload_type < kFirstDynamicType
                       ? std::nullopt
                       : ParseFecDatagram(frame.payload.subspan(rtp.header_length));
  if (!fec) {
    stream.RuleOutFec();
    return;
  }
  if (!has_fec_) {
    has_fec_ = true;
    for (std::size_t place = 0; place < streams.size(); ++place) {
      if (streams[place]->AsRtp() != nullptr) {
        Remember(streams, place);
      }
    }
  }
  if (const auto media = MediaOf(*fec, frame.flow, streams)) {
    stream.BecomeFecOf(*streams[*media], *media);
  }
}

void FecPairing::FollowMedia(Stream& stream, const DecodedFrame& frame, const RtpHeader& rtp,
                             const Streams& streams) const {
  const auto fec = ParseFecDatagram(frame.payload.subspan(rtp.header_length));
  const auto media = fec ? MediaOf(*fec, frame.flow, streams) : std::nullopt;
  if (!media || *media == *stream.ProtectedStream()) {
    return;
  }
  Stream& next = *streams[*media];
  const auto ahead = static_cast<std::int16_t>(
      fec->base - static_cast<std::uint16_t>(next.AsRtp()->sequence.Highest()));
  const bool is_near = std::abs(ahead) < static_cast<int>(FecRepair::kWindow);
  // Of two that take turns the first one keeps it.
  const bool has_taken_over =
      streams[*stream.ProtectedStream()]->Rate().LastNs() < next.Rate().FirstNs();
  if (is_near && has_taken_over) {
    stream.BecomeFecOf(next, *media);
  }
}

std::optional<std::uint32_t> FecPairing::MediaOf(const FecDatagram& fec, const FlowKey& key,
                                                 const Streams& streams) const {
  const auto media = Below(key, fec.is_row ? kRowStep : kColumnStep, streams);
  return media ? media : Below(key, fec.is_row ? kColumnStep : kRowStep, streams);
}

std::optional<std::uint32_t> FecPairing::Below(const FlowKey& fec, std::uint16_t ports,
                                               const Streams& streams) const {
  FlowKey key = WithoutSourcePort(fec);
  key.destination_port = static_cast<std::uint16_t>(key.destination_port - ports);
  const auto found = by_destination_.find(key);
  if (found == by_destination_.end()) {
    return std::nullopt;
  }
  const Stream& stream = *streams[found->second];
  const bool may_be_media = !stream.MayBeFec() && !stream.ProtectedStream();
  return may_be_media ? std::optional(found->second) : std::nullopt;
}

}  // namespace ipplay::measure
