// SPDX-License-Identifier: MIT
#include "host/measure/figures/stream_table.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "host/base/heap.h"

namespace ipplay::measure {
namespace {

// What one frame tells about its flow.
enum class Evidence { kRtp, kPlain, kUnclear };

// Whole packets of 188, 192 or 204 bytes, each with its sync byte.
bool LooksLikeTs(std::span<const std::uint8_t> bytes) {
  constexpr struct { std::size_t stride, sync_at; } kFormats[] = {{188, 0}, {192, 4}, {204, 0}};
  return std::ranges::any_of(kFormats, [&](const auto& format) {
    if (bytes.empty() || bytes.size() % format.stride != 0) {
      return false;
    }
    for (std::size_t at = format.sync_at; at < bytes.size(); at += format.stride) {
      if (bytes[at] != kTsSyncByte) {
        return false;
      }
    }
    return true;
  });
}

bool MayBeRtp(const std::optional<RtpHeader>& rtp) {
  return rtp && rtp->version == 2;
}

// RTCP shares the version bits and may share the port (RFC 5761, 4); its packet types 192 to 223
// take the place of payload types that RTP leaves free for them.
bool IsRtcp(std::span<const std::uint8_t> payload) {
  return payload.size() >= 4 && payload[0] >> 6 == 2 && payload[1] >= 192 && payload[1] <= 223;
}

Evidence Judge(const DecodedFrame& frame, const std::optional<RtpHeader>& rtp) {
  if (!MayBeRtp(rtp) || LooksLikeTs(frame.payload)) {
    return Evidence::kPlain;
  }
  if (LooksLikeTs(frame.payload.subspan(rtp->header_length))) {
    return Evidence::kRtp;
  }
  return Evidence::kUnclear;
}

// Whether two frames in a row number their packets like RTP; copies with SSRCs of their own may
// share a number.
bool Follow(const RtpHeader& first, const RtpHeader& second) {
  constexpr int kNear = 1000;
  const auto step = static_cast<std::int16_t>(second.sequence_number - first.sequence_number);
  return first.payload_type == second.payload_type && std::abs(step) <= kNear;
}

}  // namespace

void StreamTable::Add(std::int64_t time_ns, std::uint32_t frame_bytes, const DecodedFrame& frame) {
  if (!bytes_before_) {
    bytes_before_ = HeapBytes();
  }
  if (last_flow_ == nullptr || !(frame.flow == last_key_)) {
    last_flow_ = FlowOf(frame.flow);
    last_key_ = frame.flow;
  }
  if (last_flow_ == nullptr) {
    NoteUntracked();
  } else if (last_flow_->kind != FlowKind::kPlain && settings_.rtp != RtpMode::kAlways &&
             IsRtcp(frame.payload)) {
    ++rtcp_packets_;
  } else if (last_flow_->kind == FlowKind::kUndecided) {
    Decide(*last_flow_, time_ns, frame_bytes, frame);
  } else {
    Deliver(*last_flow_, time_ns, frame_bytes, frame);
  }
}

StreamTable::Flow* StreamTable::FlowOf(const FlowKey& key) {
  const auto found = flows_.find(key);
  if (found != flows_.end()) {
    return &found->second;
  }
  if (flows_.size() >= settings_.max_streams || IsFull()) {
    return nullptr;
  }
  Flow& flow = flows_[key];
  flow.number = static_cast<std::uint32_t>(flows_.size());
  if (settings_.rtp == RtpMode::kAlways) {
    flow.kind = FlowKind::kRtp;
  }
  if (settings_.rtp == RtpMode::kNever) {
    flow.kind = FlowKind::kPlain;
  }
  return &flow;
}

void StreamTable::Decide(Flow& flow, std::int64_t time_ns, std::uint32_t frame_bytes,
                         const DecodedFrame& frame) {
  const auto rtp = ParseRtpHeader(frame.payload, frame.payload_length);
  Evidence evidence = Judge(frame, rtp);
  if (evidence == Evidence::kUnclear && flow.held != nullptr) {
    evidence = Follow(flow.held->rtp, *rtp) ? Evidence::kRtp : Evidence::kPlain;
  }
  if (evidence == Evidence::kUnclear) {
    flow.held = std::make_unique<HeldFrame>(
        HeldFrame{time_ns, frame_bytes, frame, {frame.payload.begin(), frame.payload.end()}, *rtp});
    flow.held->frame.payload = flow.held->payload;
    return;
  }
  Settle(flow, evidence == Evidence::kRtp ? FlowKind::kRtp : FlowKind::kPlain);
  Deliver(flow, time_ns, frame_bytes, frame);
}

void StreamTable::Settle(Flow& flow, FlowKind kind) {
  flow.kind = kind;
  if (const auto held = std::move(flow.held)) {
    Deliver(flow, held->time_ns, held->frame_bytes, held->frame);
  }
}

void StreamTable::Deliver(Flow& flow, std::int64_t time_ns, std::uint32_t frame_bytes,
                          const DecodedFrame& frame) {
  std::optional<RtpHeader> rtp;
  if (flow.kind == FlowKind::kRtp) {
    rtp = ParseRtpHeader(frame.payload, frame.payload_length);
    const bool any_version = settings_.rtp == RtpMode::kAlways;
    if (!rtp || (rtp->version != 2 && !any_version)) {
      ++malformed_rtp_;
      return;
    }
  }
  Stream* stream = StreamOf(flow, frame.flow, rtp ? std::optional(rtp->ssrc) : std::nullopt);
  if (stream == nullptr || stream->IsClosed()) {
    NoteUntracked();
    return;
  }
  if (rtp && stream->MayBeFec()) {
    fec_.Judge(*stream, frame, *rtp, streams_);
    may_have_details_ = true;
  } else if (rtp && stream->ProtectedStream()) {
    fec_.FollowMedia(*stream, frame, *rtp, streams_);
    may_have_details_ = true;
  }
  const Arrival arrival{time_ns, frame_bytes, &frame, rtp ? &*rtp : nullptr};
  stream->Add(arrival);
  if (rtp && stream->ProtectedStream()) {
    twins_.AddFec(*stream, arrival);
  } else if (rtp) {
    twins_.Add(*stream, arrival, streams_);
  }
  if (IsFull()) {
    MakeRoom(*stream);
  }
}

void StreamTable::NoteUntracked() {
  ++untracked_frames_;
  if (streams_.size() < settings_.max_streams && flows_.size() < settings_.max_streams) {
    ++given_up_.frames;
  }
}

std::int64_t StreamTable::KeptBytes() const {
  return HeapBytes() - bytes_before_.value_or(HeapBytes());
}

std::int64_t StreamTable::MostBytes() const {
  constexpr std::uint64_t kShareOfFigures = 2;
  return static_cast<std::int64_t>(settings_.memory_bytes / kShareOfFigures);
}

void StreamTable::MakeRoom(Stream& growing) {
  std::size_t plotted = std::min(settings_.plotted_streams, streams_.size());
  for (; plotted > 0 && IsFull(); --plotted) {
    streams_[plotted - 1]->GiveUpHistory();
    ++given_up_.plots;
    settings_.plotted_streams = plotted - 1;
  }
  if (IsFull()) {
    GiveUpLargestDetails();
  }
  if (IsFull()) {
    twins_.GiveUpDetail();
  }
  if (IsFull()) {
    growing.Close();
    twins_.Close(growing);
    ++given_up_.streams;
  }
}

// Goes on until there is some room, so that it is not called again at once.
void StreamTable::GiveUpLargestDetails() {
  if (!std::exchange(may_have_details_, false)) {
    return;
  }
  std::vector<Stream*> largest;
  for (const auto& stream : streams_) {
    if (stream->HasDetail()) {
      largest.push_back(stream.get());
    }
  }
  std::ranges::sort(largest, std::ranges::greater(), &Stream::GrownBytes);
  constexpr std::int64_t kShareOfRoom = 8;
  for (Stream* stream : largest) {
    if (KeptBytes() <= MostBytes() - MostBytes() / kShareOfRoom) {
      may_have_details_ = true;
      break;
    }
    stream->GiveUpDetail();
    ++given_up_.details;
  }
}

Stream* StreamTable::StreamOf(Flow& flow, const FlowKey& key, std::optional<std::uint32_t> ssrc) {
  if (flow.last != nullptr && flow.last->Id().ssrc == ssrc) {
    return flow.last;
  }
  if (!ssrc) {
    return flow.last = NewStream({key, ssrc});
  }

  const std::uint64_t id = (std::uint64_t{flow.number} << 32) | *ssrc;
  const auto found = rtp_streams_.find(id);
  if (found != rtp_streams_.end()) {
    return flow.last = found->second;
  }
  if (flow.has_ssrc) {
    ++ssrc_changes_;
  }
  flow.has_ssrc = true;
  Stream* stream = NewStream({key, ssrc});
  if (stream != nullptr) {
    rtp_streams_[id] = flow.last = stream;
  }
  return stream;
}

Stream* StreamTable::NewStream(const StreamId& id) {
  if (streams_.size() >= settings_.max_streams || IsFull()) {
    return nullptr;
  }
  const bool keep_history = streams_.size() < settings_.plotted_streams;
  const auto number = static_cast<std::uint32_t>(streams_.size());
  streams_.push_back(
      std::make_unique<Stream>(id, settings_, keep_history, StreamEvents{events_, number}));
  if (id.ssrc) {
    fec_.AddStream(streams_);
  }
  may_have_details_ = true;
  return streams_.back().get();
}

void StreamTable::Finish(std::int64_t start_ns, std::int64_t end_ns) {
  for (auto& [key, flow] : flows_) {
    if (flow.held != nullptr) {
      Settle(flow, FlowKind::kRtp);
    }
  }
  for (const auto& stream : streams_) {
    stream->Finish(start_ns, end_ns);
  }
  twins_.Finish(end_ns);
}

}  // namespace ipplay::measure
