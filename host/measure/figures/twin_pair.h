// SPDX-License-Identifier: MIT
// Two streams of the same RTP on different paths (SMPTE ST 2022-7): how far apart they are, what
// each has lost, and the one stream that a receiver makes of them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "host/measure/figures/rtp_sequence.h"
#include "host/measure/figures/stream.h"
#include "host/measure/figures/twin_merge.h"

namespace ipplay::measure {

inline constexpr std::size_t kTwinPaths = 2;

struct TwinFigures {
  std::uint64_t packets = 0;  // numbers that were judged, of which:
  std::array<std::uint64_t, kTwinPaths> lost{};
  std::uint64_t lost_together = 0;
  std::uint64_t lost_in_front = 0;  // of these, in front of the combined stream
  std::uint64_t different = 0;      // came on both paths, and are not the same
  std::uint64_t late = 0;           // came later than the longest skew, and count as lost
  // Lost by the path that was there first, from before the other one was. Not judged, and not made
  // good.
  std::uint64_t lost_before = 0;
  std::uint64_t restarts = 0;  // numberings that both have begun anew
  // From the first stream's packet to the second one's.
  std::uint64_t skews = 0;
  std::int64_t skew_min_ns = 0;
  std::int64_t skew_max_ns = 0;
  double skew_mean_ns = 0;

  void AddSkew(std::int64_t skew_ns);
};

class TwinPair {
 public:
  // What one path has and the other one has not by then is lost on the other one. The standard's
  // widest class of receivers takes 450 ms.
  static constexpr std::int64_t kLongestSkewNs = 500'000'000;
  // Numbers further apart are of different numberings.
  static constexpr std::uint64_t kFurthest = RtpSequence::kWindow;

  enum class Likeness { kUnknown, kSame, kDifferent };

  // Between two streams of one SSRC that may be twins, both with datagrams.
  TwinPair(const Stream& first, const Stream& second, const MeasurementSettings& settings,
           EventSink* events, std::int64_t now_ns);

  // A datagram of the first (0) or the second path (1), and what its stream made of its number.
  void Add(std::size_t path, const Arrival& arrival, const SequenceResult& sequence);
  // An FEC datagram of either path.
  void AddFec(const FecDatagram& fec, std::int64_t time_ns);
  // Whether a datagram of a third stream is one of these as well.
  Likeness Compare(const Arrival& arrival) const;
  // One of the streams takes no more frames.
  void Close() { is_closed_ = true; }
  // The measurement went on to `end_ns`.
  void Finish(std::int64_t end_ns);
  // Gives the memory back that the look into the transport stream and the plots take.
  void GiveUpDetail();

  // A few datagrams were the same on both paths.
  bool IsConfirmed() const { return same_ >= kEnough; }
  // One was not, or none came on both in a long time.
  bool IsRejected() const { return is_rejected_; }

  // By their places in the order of streams.
  const std::array<std::uint32_t, kTwinPaths>& Places() const { return places_; }
  const TwinFigures& Figures() const { return figures_; }
  // Of each number what came first; times are those of the first path.
  const Stream& Combined() const { return combined_; }
  // Skew over time; null where there is no history.
  const TimeSeries<PcrPoint>* SkewHistory() const { return skew_history_.get(); }

 private:
  static constexpr std::uint64_t kEnough = 3;

  struct Entry {
    std::uint64_t hash = 0;  // 0: unknown
    std::array<std::int64_t, kTwinPaths> arrival_ns{};
    std::array<bool, kTwinPaths> came{};
    bool is_old = false;  // from before the pair: what came is known, but not when

    bool HasCome() const { return came[0] || came[1]; }
    std::int64_t FirstNs() const;
  };

  Entry& At(std::uint64_t number) { return entries_[number % entries_.size()]; }
  const Entry& At(std::uint64_t number) const { return entries_[number % entries_.size()]; }
  void LookBack(const Stream& first, const Stream& second);
  void LookBackAt(std::size_t path, const RtpSequence& sequence, std::uint64_t highest);
  void Restart(std::size_t path, std::uint16_t number);
  std::uint64_t Extend(std::uint16_t number) const;
  bool IsOfThisNumbering(std::size_t path, const Arrival& arrival, const SequenceResult& sequence);
  void NoteBefore(std::uint64_t number, const SequenceResult& sequence);
  bool MakeRoomFor(std::uint64_t number);
  void Take(std::size_t path, std::uint64_t number, const Arrival& arrival);
  void Meet(const Entry& entry, std::uint64_t hash, std::int64_t time_ns);
  void AddSkew(const Entry& entry, std::int64_t time_ns);
  void RetireBefore(std::int64_t time_ns);
  void RetireKnown(std::int64_t end_ns);
  void RetireTo(std::uint64_t end);
  void JudgeNext();
  void ReportLoss(std::int64_t time_ns);
  std::int64_t OnFirstPath(std::size_t path, std::int64_t time_ns) const;

  const std::array<std::uint32_t, kTwinPaths> places_;
  const StreamEvents events_;
  TwinFigures figures_;
  Stream combined_;
  TwinMerge merge_;
  std::unique_ptr<TimeSeries<PcrPoint>> skew_history_;
  std::vector<Entry> entries_;  // by number modulo their count, from next_ to highest_
  std::uint64_t begin_ = 0;     // extended, as all of these: the first that is judged
  std::uint64_t next_ = 0;      // the first that is not judged yet
  std::uint64_t highest_ = 0;
  std::array<std::uint64_t, kTwinPaths> highest_of_{};  // by path; 0: none in this numbering
  std::array<std::int64_t, kTwinPaths> last_ns_{};      // by path
  std::array<bool, kTwinPaths> awaits_restart_{};       // the other path has begun anew
  bool counts_before_ = false;  // the first path's losses in front of begin_ are still to come
  const std::int64_t begin_ns_;
  std::int64_t restarted_ns_ = 0;
  std::int64_t now_ns_ = 0;
  std::int64_t retired_ns_ = 0;
  std::uint64_t same_ = 0;
  std::uint64_t unmatched_ = 0;  // datagrams while nothing was the same
  std::uint64_t loss_ = 0;       // numbers in a row up to next_ that neither path has
  bool is_rejected_ = false;
  bool is_closed_ = false;
};

}  // namespace ipplay::measure
