// SPDX-License-Identifier: MIT
#include "host/measure/figures/twin_pair.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>
#include <utility>

namespace ipplay::measure {
namespace {

constexpr std::size_t kFewestEntries = 512;
constexpr std::size_t kMostEntries = 32768;
// After this many datagrams and this much time without a match, the streams are not twins.
constexpr std::uint64_t kMostUnmatched = 1'000;
constexpr std::int64_t kLongestUnmatchedNs = 4 * TwinPair::kLongestSkewNs;
constexpr std::int64_t kRetireEveryNs = 50'000'000;
// Of numbers: the first ones of a new numbering may be lost, or come out of order.
constexpr std::uint64_t kNear = 16;

// Not 0.
std::uint64_t HashOf(const DecodedFrame& frame) {
  const std::string_view bytes(reinterpret_cast<const char*>(frame.payload.data()),
                               frame.payload.size());
  return std::hash<std::string_view>()(bytes) | 1;
}

}  // namespace

void TwinFigures::AddSkew(std::int64_t skew_ns) {
  skew_min_ns = skews == 0 ? skew_ns : std::min(skew_min_ns, skew_ns);
  skew_max_ns = skews == 0 ? skew_ns : std::max(skew_max_ns, skew_ns);
  ++skews;
  skew_mean_ns += (static_cast<double>(skew_ns) - skew_mean_ns) / static_cast<double>(skews);
}

std::int64_t TwinPair::Entry::FirstNs() const {
  return came[0] && came[1] ? std::min(arrival_ns[0], arrival_ns[1]) : arrival_ns[came[0] ? 0 : 1];
}

TwinPair::TwinPair(const Stream& first, const Stream& second, const MeasurementSettings& settings,
                   EventSink* events, std::int64_t now_ns)
    : places_{first.Place(), second.Place()},
      events_{events, first.Place()},
      combined_(first.Id(), settings, first.History() != nullptr, StreamEvents{}),
      merge_(combined_),
      entries_(kFewestEntries),
      begin_ns_(now_ns),
      now_ns_(now_ns),
      retired_ns_(now_ns) {
  if (first.History() != nullptr) {
    skew_history_ = std::make_unique<TimeSeries<PcrPoint>>(kPlotIntervalNs, kFinestPlotIntervalNs);
  }
  combined_.RuleOutFec();
  if (first.AwaitsFec() || second.AwaitsFec()) {
    combined_.AwaitFec();
  }
  LookBack(first, second);
}

// Enters what each path has already received, from the first number that both could have seen.
void TwinPair::LookBack(const Stream& first, const Stream& second) {
  const RtpSequence& one = first.AsRtp()->sequence;
  const RtpSequence& other = second.AsRtp()->sequence;
  highest_ = one.Highest();
  const std::uint64_t highest_of_other = Extend(static_cast<std::uint16_t>(other.Highest()));
  const std::uint64_t first_of_other = highest_of_other - (other.Highest() - other.First());
  highest_ = std::max(highest_, highest_of_other);
  begin_ = std::max({one.First(), first_of_other, highest_ - (kFurthest - 1)});
  next_ = begin_;
  // A path that is ahead and was there before the capture has sent what is in front of its first
  // number; one that turned up later has not.
  counts_before_ = begin_ > one.Highest() && begin_ns_ - first.Rate().FirstNs() > kLongestSkewNs;
  MakeRoomFor(highest_);
  LookBackAt(0, one, one.Highest());
  LookBackAt(1, other, highest_of_other);
  std::uint64_t missing = 0;  // on the first path, and to be judged
  for (std::uint64_t n = begin_; n <= one.Highest(); ++n) {
    missing += At(n).came[0] ? 0U : 1U;
  }
  figures_.lost_before = one.Lost() - std::min(one.Lost(), missing);
  merge_.Begin(highest_ + 1);
}

void TwinPair::LookBackAt(std::size_t path, const RtpSequence& sequence, std::uint64_t highest) {
  const std::uint64_t length = std::min(kFurthest - 1, sequence.Highest() - sequence.First());
  for (std::uint64_t n = std::max(begin_, highest - length); n <= highest; ++n) {
    Entry& entry = At(n);
    entry.is_old = true;
    entry.came[path] = sequence.HasCome(sequence.Highest() - (highest - n));
    entry.arrival_ns[path] = begin_ns_;
  }
  highest_of_[path] = highest;
  last_ns_[path] = begin_ns_;
}

void TwinPair::Restart(std::size_t path, std::uint16_t number) {
  RetireKnown(now_ns_);
  std::ranges::fill(entries_, Entry());
  ++figures_.restarts;
  loss_ = 0;
  highest_ = kFurthest * 8 + number;
  begin_ = next_ = highest_;
  highest_of_ = {};
  counts_before_ = false;
  awaits_restart_ = {path == 1, path == 0};
  restarted_ns_ = now_ns_;
  merge_.Begin(next_);
}

std::uint64_t TwinPair::Extend(std::uint16_t number) const {
  const auto step = static_cast<std::int16_t>(number - static_cast<std::uint16_t>(highest_));
  return highest_ + static_cast<std::uint64_t>(std::int64_t{step});
}

// Begins a new one where the path has. The other path follows within the skew.
bool TwinPair::IsOfThisNumbering(std::size_t path, const Arrival& arrival,
                                 const SequenceResult& sequence) {
  const std::uint64_t number = Extend(arrival.rtp->sequence_number);
  const bool is_in_step =
      number + kNear >= next_ && number <= highest_ + (highest_ + 1 - next_) + kNear;
  const bool is_late = now_ns_ > restarted_ns_ + kLongestSkewNs;
  if (sequence.event == SequenceEvent::kRestart && !is_in_step) {
    Restart(path, arrival.rtp->sequence_number);
    return true;
  }
  if (is_in_step && (sequence.event == SequenceEvent::kRestart || is_late)) {
    awaits_restart_[path] = false;
  }
  // Both may have lost any number of datagrams.
  const bool is_near = number + kFurthest > highest_ &&
                       (number < highest_ + kFurthest || sequence.event == SequenceEvent::kGap);
  return is_near && !awaits_restart_[path] && sequence.event != SequenceEvent::kStray;
}

void TwinPair::Add(std::size_t path, const Arrival& arrival, const SequenceResult& sequence) {
  if (is_closed_) {
    return;
  }
  now_ns_ = arrival.time_ns;
  if (same_ == 0) {
    is_rejected_ = ++unmatched_ > kMostUnmatched && now_ns_ - begin_ns_ > kLongestUnmatchedNs;
  }
  if (!IsOfThisNumbering(path, arrival, sequence)) {
    return;
  }
  const std::uint64_t number = Extend(arrival.rtp->sequence_number);
  if (path == 0) {
    NoteBefore(number, sequence);
  }
  if (number >= next_ && MakeRoomFor(number)) {
    Take(path, number, arrival);
  } else if (number >= begin_ && sequence.event != SequenceEvent::kDuplicate) {
    ++figures_.late;
  }
  if (now_ns_ - retired_ns_ >= kRetireEveryNs) {
    retired_ns_ = now_ns_;
    RetireBefore(now_ns_ - kLongestSkewNs);
  }
}

void TwinPair::AddFec(const FecDatagram& fec, std::int64_t time_ns) {
  if (!is_closed_) {
    merge_.AddFec(Extend(fec.base), fec, time_ns);
  }
}

void TwinPair::NoteBefore(std::uint64_t number, const SequenceResult& sequence) {
  if (number < begin_ && sequence.event == SequenceEvent::kLate && figures_.lost_before > 0) {
    --figures_.lost_before;
  } else if (counts_before_ && sequence.event == SequenceEvent::kGap) {
    const std::uint64_t first_missing = number - sequence.distance;
    figures_.lost_before += std::min(number, begin_) - std::min(first_missing, begin_);
  }
}

// The more, the higher the rate. Beyond the most, what is oldest is judged early.
bool TwinPair::MakeRoomFor(std::uint64_t number) {
  while (number - next_ >= entries_.size() && entries_.size() < kMostEntries) {
    std::vector<Entry> more(entries_.size() * 2);
    for (std::uint64_t n = next_; n < next_ + entries_.size(); ++n) {
      more[n % more.size()] = At(n);
    }
    entries_.swap(more);
  }
  if (number - next_ >= entries_.size()) {
    RetireTo(number - entries_.size() + 1);
  }
  return number >= next_;
}

void TwinPair::Take(std::size_t path, std::uint64_t number, const Arrival& arrival) {
  highest_ = std::max(highest_, number);
  highest_of_[path] = std::max(highest_of_[path], number);
  last_ns_[path] = arrival.time_ns;
  Entry& entry = At(number);
  if (entry.came[path]) {
    return;
  }
  const bool is_first = !entry.HasCome();
  const std::uint64_t hash = arrival.frame->IsComplete() ? HashOf(*arrival.frame) : 0;
  entry.came[path] = true;
  entry.arrival_ns[path] = arrival.time_ns;
  if (!is_first) {
    Meet(entry, hash, arrival.time_ns);
    return;
  }
  entry.hash = hash;
  Arrival on_first = arrival;
  on_first.time_ns = OnFirstPath(path, arrival.time_ns);
  merge_.Add(number, on_first);
}

// The same number has come on both paths.
void TwinPair::Meet(const Entry& entry, std::uint64_t hash, std::int64_t time_ns) {
  const bool is_known = entry.hash != 0 && hash != 0;
  if (!is_known || entry.hash == hash) {
    same_ += is_known ? 1 : 0;
    AddSkew(entry, time_ns);
    return;
  }
  is_rejected_ = is_rejected_ || !IsConfirmed();
  ++figures_.different;
  if (IsConfirmed()) {
    events_.Report(EventKind::kTwinDifferent, time_ns, 1);
  }
}

void TwinPair::AddSkew(const Entry& entry, std::int64_t time_ns) {
  if (entry.is_old) {
    return;
  }
  const std::int64_t skew_ns = entry.arrival_ns[1] - entry.arrival_ns[0];
  figures_.AddSkew(skew_ns);
  if (skew_history_ != nullptr) {
    skew_history_->At(time_ns).Add(static_cast<double>(skew_ns));
  }
}

TwinPair::Likeness TwinPair::Compare(const Arrival& arrival) const {
  const std::uint64_t number = Extend(arrival.rtp->sequence_number);
  if (number < next_ || number > highest_ || At(number).hash == 0 || !arrival.frame->IsComplete()) {
    return Likeness::kUnknown;
  }
  return At(number).hash == HashOf(*arrival.frame) ? Likeness::kSame : Likeness::kDifferent;
}

// A receiver plays both paths at one time, so what came on the second one is moved to the first's.
std::int64_t TwinPair::OnFirstPath(std::size_t path, std::int64_t time_ns) const {
  return path == 0 ? time_ns : time_ns - std::llround(figures_.skew_mean_ns);
}

// What came by then, and what is missing in front of it.
void TwinPair::RetireBefore(std::int64_t time_ns) {
  std::uint64_t end = next_;
  for (std::uint64_t n = next_; n <= highest_; ++n) {
    if (At(n).HasCome() && At(n).FirstNs() <= time_ns) {
      end = n + 1;
    }
  }
  RetireTo(end);
}

// What both paths have had or have passed; a path that has been silent for long passes it, too.
void TwinPair::RetireKnown(std::int64_t end_ns) {
  std::uint64_t end = highest_ + 1;
  for (std::size_t path = 0; path < kTwinPaths; ++path) {
    if (is_closed_ || last_ns_[path] + kLongestSkewNs > end_ns) {
      end = std::min(end, highest_of_[path] + 1);
    }
  }
  RetireTo(end);
}

void TwinPair::RetireTo(std::uint64_t end) {
  while (next_ < end) {
    JudgeNext();
  }
}

void TwinPair::JudgeNext() {
  Entry& entry = At(next_);
  ++figures_.packets;
  for (std::size_t path = 0; path < kTwinPaths; ++path) {
    figures_.lost[path] += entry.came[path] ? 0U : 1U;
  }
  if (entry.HasCome()) {
    ReportLoss(entry.FirstNs());
  } else {
    ++figures_.lost_together;
    figures_.lost_in_front += !merge_.First() || next_ < *merge_.First() ? 1U : 0U;
    ++loss_;
  }
  entry = Entry();
  merge_.SkipTo(++next_);
}

void TwinPair::ReportLoss(std::int64_t time_ns) {
  if (const std::uint64_t packets = std::exchange(loss_, 0); packets > 0 && IsConfirmed()) {
    events_.Report(EventKind::kTwinLoss, time_ns, static_cast<std::int64_t>(packets));
  }
}

void TwinPair::Finish(std::int64_t end_ns) {
  if (!is_closed_) {
    RetireBefore(end_ns - kLongestSkewNs);
  }
  RetireKnown(end_ns);
  ReportLoss(now_ns_);
  merge_.Begin(highest_ + 1);
  if (combined_.Rate().Frames() > 0) {
    combined_.Finish(combined_.Rate().FirstNs(), std::max(end_ns, combined_.Rate().LastNs()));
  }
}

void TwinPair::GiveUpDetail() {
  combined_.GiveUpDetail();
  combined_.GiveUpHistory();
  skew_history_.reset();
}

}  // namespace ipplay::measure
