// SPDX-License-Identifier: MIT
#include "host/measure/figures/pcr_tracker.h"

#include <algorithm>
#include <cmath>

#include "host/measure/figures/ts_packet.h"

namespace ipplay::measure {
namespace {

constexpr std::uint64_t kPcrModulus = (std::uint64_t{1} << 33) * 300;
constexpr double kNsPerTick = 1000.0 / 27.0;
constexpr double kTicksPerSecond = 27e6;
constexpr std::uint64_t kFewest =
    3;  // points whose distance from a line of their own says something
// For the rate to be known, one step in this many must be without missing packets.
constexpr std::int64_t kWholeShare = 16;
// A PCR further behind is the first of a new clock.
constexpr std::int64_t kLatestTicks = 27'000'000;
// Packets that a network sends twice follow one another closely; a clock that stands does not.
constexpr std::uint64_t kRepeatWithinBytes = 16'384;

// Shortest way from one PCR to another, wraps removed.
std::int64_t StepTicks(std::uint64_t from, std::uint64_t to) {
  const std::uint64_t forward = (to + kPcrModulus - from) % kPcrModulus;
  return forward < kPcrModulus / 2
             ? static_cast<std::int64_t>(forward)
             : static_cast<std::int64_t>(forward) - static_cast<std::int64_t>(kPcrModulus);
}

std::int64_t ToNs(std::int64_t ticks) {
  return ticks * 1000 / 27;
}

bool IsRegular(std::int64_t step) {
  return step > 0 && step <= PcrTracker::kLargestStepTicks;
}

void Raise(std::optional<double>& worst, double value) {
  worst = std::max(worst.value_or(value), value);
}

}  // namespace

void PcrTracker::Expect(std::int64_t now_ns) {
  if (!expected_) {
    last_ns_ = now_ns;
  }
  expected_ = true;
}

void PcrTracker::SkipUnread(std::int64_t now_ns) {
  unread_ = true;
  last_ns_ = std::max(last_ns_, now_ns);
}

PcrFaults PcrTracker::Add(const PcrSample& sample) {
  PcrFaults faults;
  if (suspect_) {
    SettleSuspect(sample, faults);
  }
  if (count_++ == 0) {
    StartStretch(sample, faults);
    overdue_ = false;
    expected_ = true;
    last_ns_ = sample.arrival_ns;
  } else {
    Continue(sample, faults);
  }
  unread_ = false;
  return faults;
}

// A PCR that lies behind the last one came late if the next one goes on from the last; if the next
// one goes on from it, it began a new clock.
void PcrTracker::SettleSuspect(const PcrSample& next, PcrFaults& faults) {
  const PcrSample suspect = *suspect_;
  suspect_.reset();
  const std::int64_t behind = StepTicks(last_.pcr, suspect.pcr);
  const bool is_new_clock =
      !IsRegular(StepTicks(last_.pcr, next.pcr)) && IsRegular(StepTicks(suspect.pcr, next.pcr));
  if (is_new_clock) {
    Jump(suspect, behind, faults);
    return;
  }
  ++late_;
  AddArrival({ticks_ + behind, suspect.arrival_ns, suspect.byte_offset});
}

void PcrTracker::Continue(const PcrSample& sample, PcrFaults& faults) {
  const std::int64_t step = StepTicks(last_.pcr, sample.pcr);
  if (!sample.discontinuity && IsRepeat(sample)) {
    ++repeated_;
  } else if (!sample.discontinuity && step < 0 && step > -kLatestTicks) {
    suspect_ = sample;
  } else if (sample.discontinuity || !IsRegular(step)) {
    Jump(sample, step, faults);
  } else {
    TakeInterval(ToNs(step), faults);
    Advance(sample, step, faults);
  }
}

bool PcrTracker::IsRepeat(const PcrSample& sample) const {
  return sample.pcr == last_.pcr && sample.counter == last_.counter &&
         sample.byte_index - last_.byte_index < kRepeatWithinBytes;
}

bool PcrTracker::IsLoss(const PcrSample& sample, std::int64_t step) const {
  const std::int64_t step_ns = ToNs(step);
  const std::int64_t difference = sample.arrival_ns - last_.arrival_ns - step_ns;
  return !sample.discontinuity && sample.epoch != last_.epoch && step > 0 &&
         std::abs(difference) < step_ns / 10 + kOverdueNs;
}

void PcrTracker::Jump(const PcrSample& sample, std::int64_t step, PcrFaults& faults) {
  const bool loss = IsLoss(sample, step);
  TakeInterval(loss ? ToNs(step) : ArrivalInterval(sample), faults);
  if (!sample.discontinuity && !(unread_ && loss)) {
    ++discontinuity_errors_;
    faults.jump_ns = ToNs(step);
  }
  if (loss) {
    Advance(sample, step, faults);
  } else {
    StartStretch(sample, faults);
  }
}

// All packets of a datagram arrive together, so that their bytes tell more than their arrivals.
std::int64_t PcrTracker::ArrivalInterval(const PcrSample& sample) const {
  const double ns_per_byte = TicksPerByte().value_or(0) * kNsPerTick;
  const auto between = static_cast<double>(sample.byte_offset - last_.byte_offset);
  return std::max<std::int64_t>(
      0, sample.arrival_ns - last_.arrival_ns + std::llround(between * ns_per_byte));
}

void PcrTracker::TakeInterval(std::int64_t interval_ns, PcrFaults& faults) {
  if (unread_) {
    return;
  }
  intervals_.Add(interval_ns);
  if (interval_ns > kLongestRepetitionNs && !overdue_) {
    ++repetition_errors_;
    faults.repetition_ns = interval_ns;
  }
}

void PcrTracker::Advance(const PcrSample& sample, std::int64_t step, PcrFaults& faults) {
  const bool whole = sample.epoch == last_.epoch;
  if (!whole) {
    EndAccuracy(faults);
  }
  (whole ? whole_bytes_ : broken_bytes_) += sample.byte_index - last_.byte_index;
  (whole ? whole_ticks_ : broken_ticks_) += step;
  ticks_ += step;
  TakeUp(sample, faults);
}

void PcrTracker::StartStretch(const PcrSample& sample, PcrFaults& faults) {
  EndAccuracy(faults);
  if (fit_.Count() >= double{kFewest}) {
    Raise(worst_arrival_ns_, arrival_.Deviation(ArrivalSlope()).Spread());
  }
  arrival_.Clear();
  ended_xx_ += fit_.Xx();
  ended_xy_ += fit_.Xy();
  fit_.Clear();
  stretch_arrival_ns_ = sample.arrival_ns;
  ticks_ = 0;
  waiting_.reset();
  last_x_ns_ = INT64_MIN;
  TakeUp(sample, faults);
}

void PcrTracker::TakeUp(const PcrSample& sample, PcrFaults& faults) {
  last_ = sample;
  last_ns_ = sample.arrival_ns;
  overdue_ = false;
  AddToAccuracy(sample, faults);
  AddArrival({ticks_, sample.arrival_ns, sample.byte_offset});
}

void PcrTracker::AddToAccuracy(const PcrSample& sample, PcrFaults& faults) {
  if (!accuracy_.IsEmpty() && ticks_ - accuracy_first_ticks_ > kAccuracyStretchTicks) {
    EndAccuracy(faults);
  }
  if (accuracy_.IsEmpty()) {
    accuracy_first_byte_ = sample.byte_index;
    accuracy_first_ticks_ = ticks_;
  }
  accuracy_.Add(static_cast<std::int64_t>(sample.byte_index - accuracy_first_byte_),
                ticks_ - accuracy_first_ticks_);
  ++accuracy_count_;
}

void PcrTracker::EndAccuracy(PcrFaults& faults) {
  if (accuracy_count_ >= kFewest) {
    const double spread = accuracy_.SmallestSpread();
    Raise(worst_accuracy_ticks_, spread);
    if (spread * kNsPerTick > kAccuracyNs) {
      ++accuracy_errors_;
      faults.accuracy_ns = spread * kNsPerTick;
    }
  }
  accuracy_.Clear();
  accuracy_count_ = 0;
}

// The clock is taken at the datagram's first byte, for which a stream's very first PCR must wait.
void PcrTracker::AddArrival(const Point& point) {
  const auto per_byte = TicksPerByte();
  if (!per_byte) {
    waiting_ = point;
    return;
  }
  if (waiting_) {
    CompareWithArrival(*waiting_, *per_byte);
    waiting_.reset();
  }
  CompareWithArrival(point, *per_byte);
}

void PcrTracker::CompareWithArrival(const Point& point, double ticks_per_byte) {
  const double ticks =
      static_cast<double>(point.ticks) - ticks_per_byte * static_cast<double>(point.byte_offset);
  const double x = ticks * kNsPerTick;
  const double y = static_cast<double>(point.arrival_ns - stretch_arrival_ns_) - x;
  // A late one stands at the place of the one that overtook it: at a slope of parts per million the
  // difference is far below its lateness.
  last_x_ns_ = std::max<std::int64_t>(last_x_ns_, std::llround(x));
  arrival_.Add(last_x_ns_, std::llround(y));
  fit_.Add(x, y);
  if (fit_.Count() == 1) {
    rebase_ns_ = last_offset_ns_.value_or(0) - y;
  }
  last_offset_ns_ = rebase_ns_ + y;
}

PcrFaults PcrTracker::Check(std::int64_t now_ns, std::optional<std::uint64_t> byte_index) {
  PcrFaults faults;
  std::int64_t waited_ns = now_ns - last_ns_;
  const auto per_byte = TicksPerByte();
  if (byte_index && per_byte) {
    // The stream as a whole may have been held up.
    const auto bytes = static_cast<double>(*byte_index - last_.byte_index);
    const double stream_ns = bytes * *per_byte * kNsPerTick;
    waited_ns = static_cast<std::int64_t>(std::min(static_cast<double>(waited_ns), stream_ns));
  }
  if (expected_ && !overdue_ && waited_ns > kOverdueNs) {
    overdue_ = true;
    ++repetition_errors_;
    faults.repetition_ns = now_ns - last_ns_;
  }
  if (!byte_index && overdue_) {
    intervals_.Add(now_ns - last_ns_);
  }
  return faults;
}

PcrFaults PcrTracker::Finish() {
  PcrFaults faults;
  if (suspect_) {
    ++late_;
    suspect_.reset();
  }
  EndAccuracy(faults);
  return faults;
}

// A step without any missing packets may seem to be one by chance, when packets come in any order.
bool PcrTracker::IsRateKnown() const {
  return whole_bytes_ > 0 && whole_ticks_ >= broken_ticks_ / kWholeShare;
}

std::optional<double> PcrTracker::TicksPerByte() const {
  const std::uint64_t bytes = whole_bytes_ + (IsRateKnown() ? 0 : broken_bytes_);
  const std::int64_t ticks = whole_ticks_ + (IsRateKnown() ? 0 : broken_ticks_);
  return bytes > 0 ? std::optional(static_cast<double>(ticks) / static_cast<double>(bytes))
                   : std::nullopt;
}

std::optional<double> PcrTracker::AccuracySpread() const {
  std::optional<double> worst = worst_accuracy_ticks_;
  if (accuracy_count_ >= kFewest) {
    Raise(worst, accuracy_.SmallestSpread());
  }
  return worst ? std::optional(*worst * kNsPerTick) : std::nullopt;
}

std::optional<double> PcrTracker::ArrivalSpread() const {
  std::optional<double> worst = worst_arrival_ns_;
  if (fit_.Count() >= double{kFewest}) {
    Raise(worst, arrival_.Deviation(ArrivalSlope()).Spread());
  }
  return worst;
}

double PcrTracker::ArrivalSlope() const {
  const double xx = ended_xx_ + fit_.Xx();
  return xx > 0 ? (ended_xy_ + fit_.Xy()) / xx : 0;
}

std::optional<double> PcrTracker::FrequencyOffsetPpm() const {
  if (!ArrivalSpread()) {
    return std::nullopt;
  }
  // One nanosecond of the PCRs arrives in 1 + slope nanoseconds.
  return -ArrivalSlope() / (1 + ArrivalSlope()) * 1e6;
}

std::optional<double> PcrTracker::BitRate() const {
  if (!IsRateKnown()) {
    return std::nullopt;
  }
  return static_cast<double>(whole_bytes_) * 8 * kTicksPerSecond /
         static_cast<double>(whole_ticks_);
}

std::optional<double> PcrTracker::MissingBytes() const {
  if (!IsRateKnown()) {
    return std::nullopt;
  }
  const double per_byte = static_cast<double>(whole_ticks_) / static_cast<double>(whole_bytes_);
  const auto spread = AccuracySpread();
  if (spread && *spread > per_byte * kTsPacketLength * kNsPerTick) {
    return std::nullopt;
  }
  return static_cast<double>(broken_ticks_) / per_byte - static_cast<double>(broken_bytes_);
}

}  // namespace ipplay::measure
