// SPDX-License-Identifier: MIT
// Everything that is measured on one stream.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "host/measure/capture/flow_key.h"
#include "host/measure/capture/frame_decoder.h"
#include "host/measure/figures/arrival_continuity.h"
#include "host/measure/figures/availability.h"
#include "host/measure/figures/error_seconds.h"
#include "host/measure/figures/event.h"
#include "host/measure/figures/fec_repair.h"
#include "host/measure/figures/history.h"
#include "host/measure/figures/interarrival_jitter.h"
#include "host/measure/figures/media_delivery_index.h"
#include "host/measure/figures/payload_compare.h"
#include "host/measure/figures/rate_meter.h"
#include "host/measure/figures/rate_watch.h"
#include "host/measure/figures/reorder_window.h"
#include "host/measure/figures/rtp_header.h"
#include "host/measure/figures/rtp_sequence.h"
#include "host/measure/figures/settings.h"
#include "host/measure/figures/spacing.h"
#include "host/measure/figures/ts_analysis.h"

namespace ipplay::measure {

struct ChecksumCounters {
  std::uint64_t bad_ip = 0;
  std::uint64_t bad_udp = 0;
  std::uint64_t absent_udp = 0;
  std::uint64_t unchecked_udp = 0;

  void Count(const DecodedFrame& frame);
};

// A frame on its way to its stream.
struct Arrival {
  std::int64_t time_ns = 0;
  std::uint32_t frame_bytes = 0;  // on the wire, without the frame check sequence
  const DecodedFrame* frame = nullptr;
  const RtpHeader* rtp = nullptr;  // null on a stream without RTP
};

struct StreamId {
  FlowKey flow;
  std::optional<std::uint32_t> ssrc;  // with RTP only
};

// Where the events of one stream go.
struct StreamEvents {
  EventSink* sink = nullptr;  // null for nowhere
  std::uint32_t stream = 0;

  void Report(EventKind kind, std::int64_t time_ns, std::int64_t amount) const {
    if (sink != nullptr) {
      sink->Report({.time_ns = time_ns, .kind = kind, .stream = stream, .amount = amount});
    }
  }
};

class Stream {
 public:
  // So long without a frame is an event.
  static constexpr std::int64_t kSilenceNs = 500'000'000;

  // Figures of streams with RTP only.
  struct Rtp {
    Rtp(std::uint64_t clock_rate, ReorderWindow::Deliver deliver, const ReorderLimits& limits)
        : jitter(static_cast<double>(clock_rate)), window(std::move(deliver), limits) {}

    RtpSequence sequence;
    InterarrivalJitter jitter;
    ReorderWindow window;  // in front of the transport stream analysis
    std::uint8_t payload_type = 0;
    std::uint64_t payload_type_changes = 0;
  };

  Stream(const StreamId& id, const MeasurementSettings& settings, bool keep_history,
         const StreamEvents& events);

  // The largest of what has come since the last time.
  struct Peaks {
    std::int64_t gap_ns = 0;
    std::optional<double> delay_factor_ns;  // of the intervals that ended
    PcrPoint pcr;                           // of the reference clock
  };

  void Add(const Arrival& arrival);
  // No frame before `now_ns` is still to come: silence shows while it lasts.
  void WatchSilence(std::int64_t now_ns);
  Peaks TakePeaks() { return std::exchange(peaks_, {}); }
  // The measurement went on from `start_ns` to `end_ns`.
  void Finish(std::int64_t start_ns, std::int64_t end_ns);

  // ---- Forward error correction ----

  // RTP of a dynamic payload type, none of which was anything else than FEC so far.
  bool MayBeFec() const { return may_be_fec_; }
  void RuleOutFec() { may_be_fec_ = false; }
  // FEC of `media`, whose place in the order of streams is given. It is no transport stream.
  void BecomeFecOf(Stream& media, std::uint32_t place);
  // The place of the stream that this one is FEC of.
  const std::optional<std::uint32_t>& ProtectedStream() const { return protected_stream_; }
  // The first datagrams of a stream are kept for FEC that may turn up.
  void AwaitFec();
  bool AwaitsFec() const { return fec_ != nullptr && !fec_->HasFec(); }
  // FEC of this stream that is no stream of its own.
  void AddFec(const FecDatagram& fec, std::int64_t time_ns);
  // What FEC makes of its losses; null where there is no FEC.
  const FecCounters* Fec() const {
    return fec_ != nullptr && fec_->HasFec() ? &fec_->Counters() : nullptr;
  }

  // Gives the memory of the plots back.
  void GiveUpHistory() { history_.reset(); }
  // Gives the memory of the transport stream's analysis back; what it has counted stays.
  void GiveUpDetail();
  // No more frames are taken: it ends with its last one.
  void Close() { closed_ = true; }

  bool HasDetail() const { return !detail_given_up_ && (ts_ != nullptr || fec_ != nullptr); }
  bool HasGivenUpDetail() const { return detail_given_up_; }
  bool IsClosed() const { return closed_; }
  // Frames since the detail was given up, of which only that was not measured.
  std::uint64_t FramesWithoutDetail() const { return frames_without_detail_; }
  // Memory that its frames have taken so far.
  std::int64_t GrownBytes() const { return grown_bytes_; }

  const StreamId& Id() const { return id_; }
  // In the order of streams.
  std::uint32_t Place() const { return events_.stream; }
  // Of the last datagram.
  const SequenceResult& LastSequence() const { return last_sequence_; }
  // How long nothing came before the stream's first frame and after its last; known in the end.
  std::int64_t SilentAtStartNs() const { return silent_at_start_ns_; }
  std::int64_t SilentAtEndNs() const { return silent_at_end_ns_; }
  // The silence at both ends included.
  std::int64_t LongestSilenceNs() const;
  // Frames whose payload was not captured whole, and therefore not looked into.
  std::uint64_t CutFrames() const { return cut_frames_; }
  // Without RTP: datagrams of transport packets that equal the one before.
  std::uint64_t RepeatedDatagrams() const { return repeated_datagrams_; }
  const RateMeter& Rate() const { return rate_; }
  const Spacing& Gaps() const { return spacing_; }
  const ChecksumCounters& Checksums() const { return checksums_; }
  const MediaDeliveryIndex& Mdi() const { return mdi_; }
  // By the seconds of the media delivery index.
  const Availability& Seconds() const { return seconds_.Total(); }
  // Null where the stream has none.
  const Rtp* AsRtp() const { return rtp_.get(); }
  const TsAnalysis* Ts() const { return ts_.get(); }
  // Continuity errors without the repairs that RTP makes possible; Ts() has those that remain.
  std::uint64_t ContinuityErrorsAsArrived() const;
  const PayloadCompare* Compare() const { return compare_.get(); }
  const StreamHistory* History() const { return history_.get(); }

 private:
  bool LooksIntoTs() const { return !detail_given_up_ && ts_ != nullptr; }
  void Take(const Arrival& arrival);
  void AddToFec(const Arrival& arrival, const SequenceResult& sequence);
  void MeasureFec();
  void TakeFec(const FecDatagram& fec, std::int64_t time_ns);
  SequenceResult AddRtp(const RtpHeader& rtp, std::int64_t time_ns);
  void AddMedia(std::span<const std::uint8_t> media, const Arrival& arrival,
                const SequenceResult& sequence);
  void AddUnread(std::uint32_t media_bytes, const Arrival& arrival, const SequenceResult& sequence);
  void AddTs(std::span<const std::uint8_t> media, std::int64_t time_ns, bool after_gap);
  void NoteArrivalOrder(std::span<const std::uint8_t> media, const SequenceResult& sequence);
  void AddMdi(std::int64_t time_ns, std::uint32_t media_bytes, std::uint32_t missing_datagrams);
  void KeepMdi(const MediaDeliveryIndex::Interval& ended);
  void CountErrors(std::int64_t time_ns);
  void CountSecond(const MediaDeliveryIndex::Interval& ended);
  bool IsRepeat(std::span<const std::uint8_t> media);
  void ReportDisorder(const SequenceResult& sequence, std::int64_t time_ns) const;
  void ReportChecksums(const DecodedFrame& frame, std::int64_t time_ns) const;
  void WatchRate(const MediaDeliveryIndex::Interval& ended);
  void StateMediaRate();
  void NoteSilence(std::int64_t gap_ns, std::int64_t end_ns);

  StreamId id_;
  StreamEvents events_;
  Peaks peaks_;
  bool is_silent_ = false;  // and that was reported
  bool detail_given_up_ = false;
  bool closed_ = false;
  std::uint64_t frames_without_detail_ = 0;
  std::uint64_t arrival_errors_ = 0;  // when the detail was given up
  std::int64_t grown_bytes_ = 0;
  std::int64_t silent_at_start_ns_ = 0;
  std::int64_t silent_at_end_ns_ = 0;
  std::uint64_t cut_frames_ = 0;
  std::uint32_t not_compared_ = 0;  // datagrams in front of the next one, for that reason
  std::uint64_t repeated_datagrams_ = 0;
  std::vector<std::uint8_t> last_media_;  // of a stream without RTP
  RateMeter rate_;
  RateWatch rate_watch_;
  std::uint32_t longest_media_ = 0;  // bytes in one datagram
  Spacing spacing_;
  MediaDeliveryIndex mdi_;
  ErrorSeconds seconds_;
  std::uint64_t second_packets_ = 0;  // media packets since the last second ended
  std::uint64_t errors_counted_ = 0;  // of the transport stream
  ChecksumCounters checksums_;
  std::unique_ptr<Rtp> rtp_;
  SequenceResult last_sequence_;
  std::unique_ptr<TsAnalysis> ts_;
  std::unique_ptr<ArrivalContinuity> as_arrived_;  // from the first disorder on
  std::unique_ptr<PayloadCompare> compare_;
  std::unique_ptr<StreamHistory> history_;
  std::unique_ptr<FecRepair> fec_;  // of what this stream has lost
  Stream* media_ = nullptr;         // that this stream is FEC of
  std::optional<std::uint32_t> protected_stream_;
  bool may_be_fec_ = false;
  std::uint64_t stated_at_pcr_ = 0;       // PCRs that the media rate was last taken from
  std::uint64_t missing_ts_packets_ = 0;  // of those that the analysis knows, put down so far
};

}  // namespace ipplay::measure
