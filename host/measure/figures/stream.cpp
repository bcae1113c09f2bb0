// SPDX-License-Identifier: MIT
#include "host/measure/figures/stream.h"

#include <algorithm>

#include "host/base/heap.h"

namespace ipplay::measure {
namespace {

SpacingSettings SpacingOf(const MeasurementSettings& settings) {
  SpacingSettings spacing;
  if (settings.expected_rate) {
    spacing.ns_per_byte = 8e9 / *settings.expected_rate;
  }
  spacing.clump_gap_ns = settings.clump_gap_ns;
  return spacing;
}

std::optional<double> BytesPerNs(const std::optional<double>& bit_rate) {
  if (!bit_rate) {
    return std::nullopt;
  }
  return *bit_rate / 8e9;
}

// Null packets, and those without payload, may rightly follow themselves: their counters stand.
bool HasCountedPacket(std::span<const std::uint8_t> media, std::size_t stride) {
  const std::size_t sync_at = stride == 192 ? 4 : 0;
  for (std::size_t at = sync_at; at + 4 <= media.size(); at += stride) {
    const bool is_null = (media[at + 1] & 0x1F) == 0x1F && media[at + 2] == 0xFF;
    if (media[at] == kTsSyncByte && !is_null && (media[at + 3] & 0x10) != 0) {
      return true;
    }
  }
  return false;
}

// Media datagrams by which the first FEC has come: of a matrix of 100 it follows the matrix.
constexpr std::uint64_t kAwaitsFec = 256;
constexpr std::size_t kRtpFixedHeader = 12;

// What EventKind::kChecksum has for the two checksums.
constexpr std::int64_t kOfIpv4 = 4;
constexpr std::int64_t kOfUdp = 17;

bool IsInPlace(const SequenceResult& sequence) {
  return sequence.event == SequenceEvent::kInOrder || sequence.event == SequenceEvent::kFirst;
}

PayloadCompare::Order OrderOf(const SequenceResult& sequence) {
  PayloadCompare::Order order{.numbered = true};
  switch (sequence.event) {
    case SequenceEvent::kGap:
      order.missing = sequence.distance;
      break;
    case SequenceEvent::kRestart:
      order.restarted = true;
      break;
    case SequenceEvent::kLate:
    case SequenceEvent::kDuplicate:
      order.late = true;
      order.behind = sequence.distance;
      break;
    default:
      break;
  }
  return order;
}

}  // namespace

void ChecksumCounters::Count(const DecodedFrame& frame) {
  if (frame.bad_ip_checksum) {
    ++bad_ip;
  }
  switch (frame.udp_checksum) {
    case UdpChecksum::kGood:
      break;
    case UdpChecksum::kBad:
      ++bad_udp;
      break;
    case UdpChecksum::kAbsent:
      ++absent_udp;
      break;
    case UdpChecksum::kUnchecked:
      ++unchecked_udp;
      break;
  }
}

Stream::Stream(const StreamId& id, const MeasurementSettings& settings, bool keep_history,
               const StreamEvents& events)
    : id_(id),
      events_(events),
      spacing_(SpacingOf(settings)),
      mdi_(BytesPerNs(settings.media_rate)) {
  may_be_fec_ = id.ssrc.has_value();
  if (id.ssrc) {
    const auto deliver = [this](const ReorderWindow::Payload& payload, bool after_gap) {
      if (payload.unread_bytes > 0) {
        ts_->SkipUnread(payload.unread_bytes, payload.arrival_ns);
      } else {
        AddTs(payload.bytes, payload.arrival_ns, after_gap);
      }
    };
    rtp_ = std::make_unique<Rtp>(settings.rtp_clock_rate, deliver, settings.reorder);
  }
  if (settings.analyse_ts) {
    ts_ = std::make_unique<TsAnalysis>();
    ts_->ReportTo(events.sink, events.stream);
  }
  if (settings.expected != nullptr) {
    compare_ = std::make_unique<PayloadCompare>(settings.expected);
  }
  if (keep_history) {
    history_ = std::make_unique<StreamHistory>();
  }
}

void Stream::Add(const Arrival& arrival) {
  const std::int64_t before = HeapBytes();
  if (detail_given_up_) {
    ++frames_without_detail_;
  }
  Take(arrival);
  grown_bytes_ += HeapBytes() - before;
}

void Stream::GiveUpDetail() {
  if (!HasDetail()) {
    return;
  }
  if (AwaitsFec()) {
    fec_.reset();
  }
  if (fec_ != nullptr) {
    fec_->GiveUp();
  }
  if (ts_ != nullptr) {
    arrival_errors_ = ContinuityErrorsAsArrived();
    ts_->GiveUp();
  }
  detail_given_up_ = true;
  as_arrived_.reset();
  last_media_ = {};
  if (rtp_ != nullptr) {
    rtp_->window.GiveUp();
  }
}

void Stream::Take(const Arrival& arrival) {
  const DecodedFrame& frame = *arrival.frame;
  const std::size_t header = arrival.rtp == nullptr ? 0 : arrival.rtp->header_length;
  const std::size_t padding = arrival.rtp == nullptr ? 0 : arrival.rtp->padding;
  const auto media_bytes = static_cast<std::uint32_t>(frame.payload_length - header - padding);
  const std::int64_t gap_ns =
      rate_.Frames() == 0 ? 0 : std::max<std::int64_t>(0, arrival.time_ns - rate_.LastNs());

  if (rate_.Frames() == 0) {
    seconds_.Begin(arrival.time_ns);
  }
  WatchSilence(arrival.time_ns);
  NoteSilence(gap_ns, arrival.time_ns);
  is_silent_ = false;
  peaks_.gap_ns = std::max(peaks_.gap_ns, gap_ns);
  SequenceResult sequence =
      arrival.rtp == nullptr ? SequenceResult{} : AddRtp(*arrival.rtp, arrival.time_ns);
  checksums_.Count(frame);
  ReportChecksums(frame, arrival.time_ns);
  longest_media_ = std::max(longest_media_, media_bytes);
  rate_.Add(arrival.time_ns, arrival.frame_bytes, media_bytes);
  spacing_.Add(arrival.time_ns, arrival.frame_bytes, IsInPlace(sequence));
  if (history_ != nullptr) {
    history_->arrivals.At(arrival.time_ns).Add(arrival.frame_bytes, gap_ns);
  }
  const std::size_t captured = frame.payload.size() - header;
  const auto media = frame.payload.subspan(header, std::min<std::size_t>(captured, media_bytes));
  if (!frame.IsComplete()) {
    ++cut_frames_;
  } else if (rtp_ == nullptr && IsRepeat(media)) {
    sequence.event = SequenceEvent::kDuplicate;
    ++repeated_datagrams_;
  }
  last_sequence_ = sequence;
  ReportDisorder(sequence, arrival.time_ns);
  if (fec_ != nullptr || media_ != nullptr) {
    AddToFec(arrival, sequence);
  }
  if (frame.IsComplete()) {
    AddMedia(media, arrival, sequence);
  } else {
    AddUnread(media_bytes, arrival, sequence);
  }
  AddMdi(arrival.time_ns, media_bytes,
         sequence.event == SequenceEvent::kGap ? sequence.distance : 0);
}

void Stream::AwaitFec() {
  fec_ = std::make_unique<FecRepair>(FecRepair::Listener{
      [this](std::int64_t time_ns) { events_.Report(EventKind::kFecParity, time_ns, 0); },
      [this](std::int64_t time_ns, std::uint64_t datagrams) {
        events_.Report(EventKind::kFecUnrepaired, time_ns, static_cast<std::int64_t>(datagrams));
      },
      [this](std::int64_t time_ns, bool is_repaired) {
        if (history_ != nullptr) {
          history_->fec.At(time_ns).Merge({1, is_repaired ? 0U : 1U});
        }
      }});
}

void Stream::BecomeFecOf(Stream& media, std::uint32_t place) {
  may_be_fec_ = false;
  media_ = &media;
  protected_stream_ = place;
  fec_.reset();
  media.MeasureFec();
  ts_.reset();
  as_arrived_.reset();
  compare_.reset();
  rtp_->window.GiveUp();
}

void Stream::MeasureFec() {
  if (fec_ != nullptr || detail_given_up_) {
    return;
  }
  AwaitFec();
  if (rate_.Frames() > 0) {
    fec_->BeginLate(rtp_->sequence.Lost());
  }
}

void Stream::AddFec(const FecDatagram& fec, std::int64_t time_ns) {
  MeasureFec();
  TakeFec(fec, time_ns);
}

void Stream::AddToFec(const Arrival& arrival, const SequenceResult& sequence) {
  const std::span payload = arrival.frame->payload;
  if (media_ != nullptr) {
    const auto fec = ParseFecDatagram(payload.subspan(arrival.rtp->header_length));
    if (fec && arrival.frame->IsComplete() && sequence.event != SequenceEvent::kDuplicate) {
      media_->TakeFec(*fec, arrival.time_ns);
    }
    return;
  }
  if (AwaitsFec() && rate_.Frames() > kAwaitsFec) {
    fec_.reset();
    return;
  }
  FecRepair::Media media{arrival.rtp->sequence_number,
                         arrival.rtp->payload_type,
                         arrival.rtp->timestamp,
                         {},
                         arrival.frame->IsComplete()};
  if (media.is_whole) {
    media.bytes = payload.subspan(kRtpFixedHeader);
  }
  fec_->AddMedia(media, sequence, arrival.time_ns);
}

// The memory that this takes is the media stream's.
void Stream::TakeFec(const FecDatagram& fec, std::int64_t time_ns) {
  if (fec_ != nullptr) {
    const std::int64_t before = HeapBytes();
    fec_->AddFec(fec, time_ns);
    grown_bytes_ += HeapBytes() - before;
  }
}

// Behind itself, a datagram is a copy that the network made, unless nothing in it counts.
bool Stream::IsRepeat(std::span<const std::uint8_t> media) {
  if (!LooksIntoTs() || ts_->Framer().HasGivenUp()) {
    return false;
  }
  const bool repeat = ts_->Framer().IsSynced() && std::ranges::equal(media, last_media_) &&
                      HasCountedPacket(media, ts_->Framer().PacketLength());
  if (!repeat) {
    last_media_.assign(media.begin(), media.end());
  }
  return repeat;
}

void Stream::ReportDisorder(const SequenceResult& sequence, std::int64_t time_ns) const {
  switch (sequence.event) {
    case SequenceEvent::kGap:
      events_.Report(EventKind::kLoss, time_ns, sequence.distance);
      break;
    case SequenceEvent::kDuplicate:
      events_.Report(EventKind::kRepeat, time_ns, 1);
      break;
    case SequenceEvent::kLate:
      events_.Report(EventKind::kReordered, time_ns, sequence.distance);
      break;
    case SequenceEvent::kRestart:
      events_.Report(EventKind::kRestart, time_ns, 0);
      break;
    default:
      break;
  }
}

void Stream::ReportChecksums(const DecodedFrame& frame, std::int64_t time_ns) const {
  if (frame.bad_ip_checksum) {
    events_.Report(EventKind::kChecksum, time_ns, kOfIpv4);
  }
  if (frame.udp_checksum == UdpChecksum::kBad) {
    events_.Report(EventKind::kChecksum, time_ns, kOfUdp);
  }
}

SequenceResult Stream::AddRtp(const RtpHeader& rtp, std::int64_t time_ns) {
  if (rtp_->sequence.Received() > 0 && rtp.payload_type != rtp_->payload_type) {
    ++rtp_->payload_type_changes;
  }
  rtp_->payload_type = rtp.payload_type;
  rtp_->jitter.Add(time_ns, rtp.timestamp);
  return rtp_->sequence.Add(rtp.sequence_number, rtp.timestamp);
}

void Stream::AddMedia(std::span<const std::uint8_t> media, const Arrival& arrival,
                      const SequenceResult& sequence) {
  // A receiver drops what it has and puts in order what it can; the transport stream is judged
  // behind it.
  if (LooksIntoTs() && arrival.rtp != nullptr) {
    NoteArrivalOrder(media, sequence);
    rtp_->window.Add(arrival.rtp->sequence_number, sequence.event, {media, arrival.time_ns});
  } else if (LooksIntoTs() && sequence.event != SequenceEvent::kDuplicate) {
    AddTs(media, arrival.time_ns, !IsInPlace(sequence));
  }
  // Without RTP the file itself tells whether a datagram that equals the one before is its next
  // one.
  if (compare_ != nullptr && sequence.event != SequenceEvent::kStray) {
    PayloadCompare::Order order = rtp_ == nullptr ? PayloadCompare::Order{} : OrderOf(sequence);
    if (!order.late) {
      order.missing += std::exchange(not_compared_, 0);
    }
    compare_->Add(media, order);
  }
}

// Part of a payload would look like damage, and none of it like loss.
void Stream::AddUnread(std::uint32_t media_bytes, const Arrival& arrival,
                       const SequenceResult& sequence) {
  if (IsInPlace(sequence) || sequence.event == SequenceEvent::kGap) {
    not_compared_ += 1 + (sequence.event == SequenceEvent::kGap ? sequence.distance : 0);
  }
  if (ts_ == nullptr || media_bytes == 0) {
    return;
  }
  if (as_arrived_ != nullptr) {
    as_arrived_->SkipUnread();
  }
  if (arrival.rtp != nullptr) {
    rtp_->window.Add(arrival.rtp->sequence_number, sequence.event,
                     {{}, arrival.time_ns, media_bytes});
  } else {
    ts_->SkipUnread(media_bytes, arrival.time_ns);
  }
}

void Stream::AddTs(std::span<const std::uint8_t> media, std::int64_t time_ns, bool after_gap) {
  ts_->Add(media, time_ns, after_gap);
  CountErrors(time_ns);
  if (const auto pcr = ts_->TakePcrOffset()) {
    peaks_.pcr.Add(pcr->offset_ns);
    if (history_ != nullptr) {
      history_->pcr.At(pcr->arrival_ns).Add(pcr->offset_ns);
    }
  }
}

void Stream::NoteArrivalOrder(std::span<const std::uint8_t> media, const SequenceResult& sequence) {
  if (as_arrived_ == nullptr && !IsInPlace(sequence)) {
    as_arrived_ =
        std::make_unique<ArrivalContinuity>(ts_->Counters().continuity_errors, ts_->PidStates());
  }
  if (as_arrived_ != nullptr && ts_->Framer().IsSynced()) {
    as_arrived_->Add(media, ts_->Framer().PacketLength());
  }
}

std::uint64_t Stream::ContinuityErrorsAsArrived() const {
  if (detail_given_up_) {
    return arrival_errors_;
  }
  return as_arrived_ != nullptr ? as_arrived_->Errors() : ts_->Counters().continuity_errors;
}

void Stream::AddMdi(std::int64_t time_ns, std::uint32_t media_bytes,
                    std::uint32_t missing_datagrams) {
  // RFC 4445, 3.2 counts media packets, of which a datagram holds several. Without RTP, the
  // continuity counters tell how many are missing.
  std::uint64_t lost = missing_datagrams;
  std::uint64_t packets = 1;
  if (ts_ != nullptr && ts_->Framer().IsSynced()) {
    packets = std::max<std::uint64_t>(1, media_bytes / ts_->Framer().PacketLength());
    lost *= packets;
    const std::uint64_t missing = ts_->Counters().missing_packets;
    if (rtp_ == nullptr) {
      lost = missing - missing_ts_packets_;
    }
    missing_ts_packets_ = missing;
    StateMediaRate();
  }
  mdi_.Add(time_ns, media_bytes, lost, [this](const auto& ended) {
    KeepMdi(ended);
    WatchRate(ended);
  });
  second_packets_ += packets;
}

// The stream's own clock knows its rate, whatever the network does to it.
void Stream::StateMediaRate() {
  const PcrTracker* clock = ts_->ReferenceClock();
  if (clock == nullptr || clock->Count() == stated_at_pcr_) {
    return;
  }
  stated_at_pcr_ = clock->Count();
  if (const std::optional<double> rate = clock->BitRate(); rate && *rate > 0) {
    // Time stamps and check bytes around the packets drain, too.
    const auto length = static_cast<double>(ts_->Framer().PacketLength());
    mdi_.StateRate(*rate / 8e9 * length / kTsPacketLength);
  }
}

void Stream::CountErrors(std::int64_t time_ns) {
  seconds_.AddErrors(time_ns, ts_->Errors() - std::exchange(errors_counted_, ts_->Errors()));
}

void Stream::CountSecond(const MediaDeliveryIndex::Interval& ended) {
  if (ended.count > 1) {
    seconds_.EndEmpty(ended.start_ns, ended.count);
    return;
  }
  seconds_.End(ended.start_ns, second_packets_, ended.lost_packets);
  second_packets_ = 0;
}

void Stream::WatchRate(const MediaDeliveryIndex::Interval& ended) {
  if (ended.bytes > 0 && rate_watch_.Add(ended.bytes, longest_media_)) {
    events_.Report(EventKind::kRate, ended.start_ns + MediaDeliveryIndex::kIntervalNs,
                   static_cast<std::int64_t>(ended.bytes * 8));
  }
}

void Stream::KeepMdi(const MediaDeliveryIndex::Interval& ended) {
  CountSecond(ended);
  peaks_.delay_factor_ns = std::max(peaks_.delay_factor_ns, ended.delay_factor_ns);
  if (history_ != nullptr) {
    const std::int64_t last_ns = ended.start_ns + (ended.count - 1) * ErrorSeconds::kSecondNs;
    history_->mdi.At(last_ns).Add(ended.delay_factor_ns.value_or(0), ended.lost_packets);
  }
}

void Stream::WatchSilence(std::int64_t now_ns) {
  if (!is_silent_ && rate_.Frames() > 0 && now_ns - rate_.LastNs() >= kSilenceNs) {
    is_silent_ = true;
    events_.Report(EventKind::kSilenceBegan, rate_.LastNs() + kSilenceNs, kSilenceNs);
  }
}

void Stream::NoteSilence(std::int64_t gap_ns, std::int64_t end_ns) {
  if (gap_ns >= kSilenceNs) {
    events_.Report(EventKind::kSilence, end_ns, gap_ns);
  }
}

std::int64_t Stream::LongestSilenceNs() const {
  return std::max(
      {static_cast<std::int64_t>(spacing_.Gaps().Max()), silent_at_start_ns_, silent_at_end_ns_});
}

void Stream::Finish(std::int64_t start_ns, std::int64_t end_ns) {
  if (closed_) {
    end_ns = rate_.LastNs();
  }
  silent_at_start_ns_ = std::max<std::int64_t>(0, rate_.FirstNs() - start_ns);
  silent_at_end_ns_ = std::max<std::int64_t>(0, end_ns - rate_.LastNs());
  NoteSilence(silent_at_start_ns_, rate_.FirstNs());
  WatchSilence(end_ns);
  NoteSilence(silent_at_end_ns_, end_ns);
  spacing_.EndBurst();
  if (fec_ != nullptr) {
    fec_->Finish();
  }
  if (ts_ != nullptr) {
    if (rtp_ != nullptr) {
      rtp_->window.Flush();
    }
    // What a stream that has ended owes is no fault of the second in which its last frames came.
    if (silent_at_end_ns_ < MediaDeliveryIndex::kIntervalNs) {
      ts_->Finish(end_ns);
      CountErrors(rate_.LastNs());
    }
  }
  mdi_.Finish(end_ns, [&](const auto& ended) {
    // An empty rest of less than a second is not counted as a second without packets.
    if (ended.start_ns + MediaDeliveryIndex::kIntervalNs <= end_ns || second_packets_ > 0) {
      KeepMdi(ended);
    }
  });
  seconds_.Finish();
  if (ts_ != nullptr) {
    ts_->Finish(end_ns);
  }
}

}  // namespace ipplay::measure
