// SPDX-License-Identifier: MIT
#include "payload/datagram_builder.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

#include "ipplayout/playouts.h"
#include "protocol/big_endian.h"
#include "transmit/seconds.h"

namespace ipplayout {
namespace {

// Sending one copy may let go of a frame that was held back, too, and is done twice on purpose.
constexpr std::size_t kMostFramesPerCopy = 3;
// A jitter period may be any number: keeps the arithmetic on times finite.
constexpr Seconds kMostJitter{3600};

}  // namespace

DatagramBuilder::DatagramBuilder(const BuilderParts& parts, const BuilderRules& rules)
    : parts_(parts),
      rules_(rules),
      frame_(rules.shape.datagram_size),
      copies_(parts.replication.IsEnabled() != 0
                  ? std::int64_t{parts.replication.GetReplicationCount()} + 1
                  : 1),
      burst_frames_(parts.parameters.IsBurstMode() != 0 ? parts.parameters.GetBurstCount() : 1),
      has_jitter_(parts.parameters.IsJitterEnabled() != 0) {
  parts_.statistics.Begin(rules.shape);
}

DatagramBuilder::Progress DatagramBuilder::Build(int budget) {
  if (parts_.has_left.load()) {
    if (!std::exchange(is_over_, true)) {
      parts_.taker.OnOver();
    }
    return Progress::kDone;
  }
  if (is_done_) {
    return Progress::kDone;
  }
  try {
    return BuildFrames(budget);
  } catch (const std::exception&) {
    out_of_memory_ = true;  // for a frame that is to be held back
    return Finish();
  }
}

DatagramBuilder::Progress DatagramBuilder::BuildFrames(int budget) {
  for (; budget > 0; --budget) {
    if (!is_begun_) {
      const Step step = BeginDatagram();
      if (step == Step::kEnd && !BeginFecAtEnd()) {
        return Finish();
      }
      if (step == Step::kWaits) {
        return Progress::kWaits;
      }
    }
    if (!parts_.ring.HasRoom(kMostFramesPerCopy)) {
      return Progress::kWaits;
    }
    if (is_fec_) {
      SendFecCopy();
    } else {
      SendCopy();
    }
    if (copy_ == copies_ && !BeginFec()) {
      EndDatagram();
    }
  }
  return Progress::kMore;
}

DatagramBuilder::Progress DatagramBuilder::Finish() {
  is_done_ = true;
  parts_.faults.Finish();
  parts_.all_built.store(true);
  parts_.taker.OnFrames();
  return Progress::kDone;
}

DatagramBuilder::Step DatagramBuilder::BeginDatagram() {
  if (const Step step = ReadPayload(); step != Step::kDone) {
    return step;
  }
  if (!FindTimes()) {
    return Step::kWaits;
  }
  parts_.faults.Begin(index_, *due_, Payload().size());
  parts_.replication.StartDatagram();
  parts_.errors.PrepareForPacket(index_);
  copy_ = 0;
  damage_ = parts_.faults.IsCorrupt() ? std::uint32_t{IPPLAYOUT_DID_CORRUPT} : 0;
  is_begun_ = true;
  return Step::kDone;
}

DatagramBuilder::Step DatagramBuilder::ReadPayload() {
  if (has_payload_) {
    return Step::kDone;
  }
  switch (parts_.source.TryReadPayload(frame_, rules_.shape.header_room)) {
    case CIPDataBuffer::TryResult::kRead:
      has_payload_ = true;
      return Step::kDone;
    case CIPDataBuffer::TryResult::kNotYet:
      return Step::kWaits;
    default:
      return Step::kEnd;
  }
}

// Where nothing lies between this datagram and the next the time of the next one is not needed.
bool DatagramBuilder::FindTimes() {
  if (!due_ && !FindDue()) {
    return false;
  }
  const bool is_needed =
      copies_ > 1 || has_jitter_ || fec_ != nullptr || parts_.faults.ClosesHoles();
  if (!after_ && !is_needed) {
    after_ = due_;
  } else if (!after_) {
    const auto scheduled = parts_.marks.At(offset_ + frame_.Length() - rules_.shape.header_room);
    after_ = scheduled ? std::optional(speed_.Map(*scheduled)) : std::nullopt;
  }
  return after_.has_value();
}

// And takes what was changed from then on.
bool DatagramBuilder::FindDue() {
  const auto scheduled = parts_.marks.At(offset_);
  if (!scheduled) {
    return false;
  }
  due_ = speed_.Map(*scheduled);
  if (const auto change = parts_.changes.TakeDue(*due_)) {
    speed_.Bend(*scheduled, change->speed);
    parts_.taker.OnChange(*change);
    has_jitter_ = parts_.parameters.IsJitterEnabled() != 0;
  }
  return true;
}

std::span<std::uint8_t> DatagramBuilder::Payload() {
  const std::uint32_t room = rules_.shape.header_room;
  return {frame_.Data() + room, frame_.Length() - room};
}

void DatagramBuilder::SendCopy() {
  queued_ = {};
  queued_.due = NextDue();
  queued_.did = damage_;
  // A receiver is to see bursts and jitter, so its clock does not follow them.
  parts_.clock.Set(rules_.copies_share_time ? *due_ : place_);
  parts_.errors.CopyStatistics(before_);
  parts_.faults.Flip(Payload());
  SendOne(frame_, *top_);
  parts_.faults.Flip(Payload());
  if (!was_queued_) {
    const bool lost = parts_.errors.WasPacketLost();
    queued_.leaves = false;
    queued_.did |= static_cast<std::uint32_t>(lost ? IPPLAYOUT_DID_LOSE : IPPLAYOUT_DID_DELAY);
    Push(frame_);
  }
  if (copy_ == 0) {
    EndFirstCopy();
  }
  ++frame_count_;
  if (++copy_ < copies_) {
    parts_.replication.NextCopy();
  }
}

void DatagramBuilder::EndFirstCopy() {
  did_ = queued_.did;
  parts_.faults.End(index_, *due_, did_);
  if (fec_ != nullptr) {
    fec_->AddMedia(frame_);
  }
}

void DatagramBuilder::SendOne(PDU& frame, Sender& top) {
  queued_.datagram = index_;
  queued_.copy = static_cast<std::uint32_t>(copy_);
  in_hand_ = &frame;
  was_queued_ = false;
  top.Send(frame);
}

// ---- FEC ----

// Goes on to an FEC datagram behind the one whose copies have been sent. False when there is none.
bool DatagramBuilder::BeginFec() {
  if (fec_ == nullptr || !fec_->Next()) {
    return false;
  }
  is_fec_ = true;
  copy_ = 0;
  fec_->Port().replication->StartDatagram();
  if (parts_.faults.IsLinkDown()) {
    fec_->Port().errors->GeneratePacketLoss();
  }
  fec_->Port().errors->PrepareForPacket(fec_->Index());
  return true;
}

// What protects the last datagrams follows them, half a gap behind each other.
bool DatagramBuilder::BeginFecAtEnd() {
  if (fec_ == nullptr || !fec_->AtEnd()) {
    return false;
  }
  has_ended_ = true;
  due_ = last_due_;
  after_ = last_due_ + last_gap_;
  is_begun_ = true;
  return BeginFec();
}

void DatagramBuilder::SendFecCopy() {
  queued_ = {};
  queued_.due = NextFecDue();
  queued_.did = fec_->Which() == FecFeed::kRow ? IPPLAYOUT_DID_FEC_ROW : IPPLAYOUT_DID_FEC_COLUMN;
  parts_.clock.Set(queued_.due);
  SendOne(fec_->Frame(), *fec_->Port().top);
  if (!was_queued_) {
    queued_.leaves = false;
    const bool lost = fec_->Port().errors->WasPacketLost();
    queued_.did |= static_cast<std::uint32_t>(lost ? IPPLAYOUT_DID_LOSE : IPPLAYOUT_DID_DELAY);
    Push(fec_->Frame());
  }
  if (++copy_ < copies_) {
    fec_->Port().replication->NextCopy();
  }
}

// Between this datagram and the next one.
DatagramBuilder::Time DatagramBuilder::NextFecDue() {
  const double behind = fec_->Which() == FecFeed::kRow ? 0.75 : 0.5;
  const double share = behind + 0.25 * static_cast<double>(copy_) / static_cast<double>(copies_);
  const std::chrono::duration<double, std::nano> gap = *after_ - *due_;
  last_due_ = std::max(last_due_, *due_ - closed_ + std::chrono::duration_cast<Time>(gap * share));
  return last_due_;
}

// The copies of a datagram share out the time up to the next one.
DatagramBuilder::Time DatagramBuilder::NextDue() {
  const std::chrono::duration<double, std::nano> part = *after_ - *due_;
  place_ = *due_ + std::chrono::duration_cast<Time>(
                       part * (static_cast<double>(copy_) / static_cast<double>(copies_)));
  if (frame_count_ % burst_frames_ == 0) {
    burst_due_ =
        place_ - closed_ + (has_jitter_ ? Jitter(frame_count_ / burst_frames_) : Time::zero());
  }
  last_due_ = std::max({last_due_, burst_due_, Time::zero()});
  jitter_.Add(last_due_);
  return last_due_;
}

DatagramBuilder::Time DatagramBuilder::Jitter(std::uint64_t index) {
  const Seconds gap = Seconds(*after_ - *due_) / static_cast<double>(copies_);
  const Seconds offset = parts_.parameters.NextJitter(gap, static_cast<std::int64_t>(index));
  if (!std::isfinite(offset.count())) {
    return Time::zero();
  }
  return std::chrono::duration_cast<Time>(std::clamp(offset, -kMostJitter, kMostJitter));
}

bool DatagramBuilder::Send(PDU& frame) {
  if (&frame == in_hand_ && is_fec_) {
    was_queued_ = true;
    Push(frame);
  } else if (&frame == in_hand_) {
    was_queued_ = true;
    ErrorStatistics now;
    parts_.errors.CopyStatistics(now);
    // Counted with the first copy, done to all.
    damage_ |=
        (now.ip_checksum_errors != before_.ip_checksum_errors ? IPPLAYOUT_DID_IP_CHECKSUM : 0) |
        (now.udp_checksum_errors != before_.udp_checksum_errors ? IPPLAYOUT_DID_UDP_CHECKSUM : 0);
    queued_.did = damage_;
    Push(frame);
    if (parts_.faults.IsDuplicated()) {
      queued_.did |= IPPLAYOUT_DID_DUPLICATE;
      Push(frame);
    }
  } else {
    constexpr std::uint32_t kWhichStream = IPPLAYOUT_DID_FEC_COLUMN | IPPLAYOUT_DID_FEC_ROW;
    const std::uint32_t did = queued_.did;
    queued_.did = IPPLAYOUT_DID_SEND_HELD | (did & kWhichStream);
    queued_.leaves = !parts_.faults.IsLinkDown();
    queued_.did |= queued_.leaves ? 0 : std::uint32_t{IPPLAYOUT_DID_LOSE};
    Push(frame);
    queued_.did = did;
    queued_.leaves = true;
  }
  return true;
}

void DatagramBuilder::Push(const PDU& frame) {
  queued_.length = frame.Length();
  if (rules_.rtp_sequence_offset != 0) {
    queued_.rtp_sequence =
        static_cast<std::uint16_t>(LoadBigEndian<2>(frame.Data() + rules_.rtp_sequence_offset));
  }
  if (parts_.ring.Push(queued_, frame.Data())) {
    parts_.taker.OnFrames();
  }
}

void DatagramBuilder::EndDatagram() {
  is_begun_ = false;
  is_fec_ = false;
  if (has_ended_) {
    return;
  }
  last_gap_ = *after_ - *due_;
  if (parts_.faults.ClosesHoles() && (did_ & IPPLAYOUT_DID_LOSE) != 0 &&
      !parts_.faults.IsLinkDown()) {
    closed_ += last_gap_;
  }
  parts_.errors.SetJitter(jitter_.Value().count());
  parts_.statistics.Count(frame_, parts_.errors);
  offset_ += frame_.Length() - rules_.shape.header_room;
  ++index_;
  has_payload_ = false;
  due_.reset();
  after_.reset();
  if (frame_.Length() != rules_.shape.datagram_size) {
    frame_.SetLength(rules_.shape.datagram_size);
  }
}

}  // namespace ipplayout
