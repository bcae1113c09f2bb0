// SPDX-License-Identifier: MIT
#include "host/measure/figures/fec_repair.h"

#include <algorithm>

namespace ipplay::measure {
namespace {

// High enough that numbers before the first one fit.
constexpr std::uint64_t kFirstNumber = std::uint64_t{1} << 20;
// FEC is sent behind its media, which the network may turn round, within reason.
constexpr std::uint64_t kFurthestAhead = FecDatagram::kLongestSpan;

void Xor(std::span<const std::uint8_t> from, std::vector<std::uint8_t>& to) {
  if (to.size() < from.size()) {
    to.resize(from.size());
  }
  std::uint8_t* const bytes = to.data();
  for (std::size_t i = 0; i < from.size(); ++i) {
    bytes[i] ^= from[i];
  }
}

bool IsZero(std::span<const std::uint8_t> bytes) {
  return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

}  // namespace

void FecRepair::Content::Add(const Content& other) {
  length ^= other.length;
  type ^= other.type;
  timestamp ^= other.timestamp;
  Xor(other.bytes, bytes);
}

void FecRepair::AddMedia(const Media& media, const SequenceResult& sequence, std::int64_t time_ns) {
  if (given_up_) {
    return;
  }
  now_ns_ = time_ns;
  std::uint64_t number = 0;
  if (!Follow(media, sequence, number)) {
    return;
  }
  payload_type_ = media.payload_type;
  Put(number, media);
  const auto covers = [&](const Waiting& fec) { return fec.Covers(number); };
  if (sequence.event == SequenceEvent::kGap || std::ranges::any_of(waiting_, covers)) {
    ResolveWaiting();
  }
}

bool FecRepair::Follow(const Media& media, const SequenceResult& sequence, std::uint64_t& number) {
  switch (sequence.event) {
    case SequenceEvent::kDuplicate:
    case SequenceEvent::kStray:
      return false;
    case SequenceEvent::kLate:
      return FollowLate(sequence.distance, number);
    case SequenceEvent::kInOrder:
    case SequenceEvent::kGap: {
      const std::uint64_t missing = sequence.event == SequenceEvent::kGap ? sequence.distance : 0;
      if (!is_begun_) {
        counters_.lost += missing;
        counters_.unprotected += missing;
        Start(media.number);
        break;
      }
      highest_of_media_ += missing + 1;
      if (highest_of_media_ > highest_) {
        Advance(highest_of_media_ - highest_);
      }
      break;
    }
    case SequenceEvent::kRestart:
      begins_late_ = false;
      [[fallthrough]];
    case SequenceEvent::kFirst:
      Start(media.number);
      break;
  }
  number = highest_of_media_;
  return number + kWindow > highest_;
}

bool FecRepair::FollowLate(std::uint32_t behind, std::uint64_t& number) {
  number = highest_of_media_ - behind;
  if (begins_late_ && (!is_begun_ || number < first_)) {
    counters_.lost -= counters_.lost > 0 ? 1 : 0;
    counters_.unprotected -= counters_.unprotected > 0 ? 1 : 0;
    return false;
  }
  if (!is_begun_ || number + kWindow <= highest_) {
    return false;
  }
  first_ = std::min(first_, number);
  return true;
}

void FecRepair::BeginLate(std::uint64_t lost_before) {
  begins_late_ = true;
  counters_.lost = lost_before;
  counters_.unprotected = lost_before;
}

void FecRepair::Put(std::uint64_t number, const Media& media) {
  Slot& slot = At(number);
  // What was rebuilt has come after all.
  if (slot.state == State::kRebuilt && slot.is_whole && media.is_whole) {
    if (std::ranges::equal(slot.content.bytes, media.bytes)) {
      ++counters_.parity_right;
    } else {
      NoteWrongParity();
    }
  }
  slot.state = State::kCame;
  slot.is_whole = media.is_whole;
  slot.content.length = static_cast<std::uint16_t>(media.bytes.size());
  slot.content.type = media.payload_type;
  slot.content.timestamp = media.timestamp;
  slot.content.bytes.assign(media.bytes.begin(), media.bytes.end());
}

void FecRepair::Start(std::uint16_t number) {
  if (is_begun_) {
    for (std::uint64_t n = OldestOfStream(); n <= highest_; ++n) {
      Retire(n);
    }
    EndLoss();
  }
  is_begun_ = true;
  waiting_.clear();
  slots_.resize(kSlots);
  for (Slot& slot : slots_) {
    slot.state = State::kMissing;
    slot.is_protected = false;
  }
  highest_ = highest_of_media_ = furthest_of_fec_ = first_ = kFirstNumber + number;
}

std::uint64_t FecRepair::OldestOfStream() const {
  return std::max(first_, highest_ - (kWindow - 1));
}

void FecRepair::Advance(std::uint64_t steps) {
  for (; steps > 0; --steps) {
    ++highest_;
    Retire(highest_ - kWindow);
    At(highest_).passed_ns = now_ns_;
  }
  std::erase_if(waiting_, [&](const Waiting& fec) { return fec.base < Oldest(); });
}

void FecRepair::Retire(std::uint64_t number) {
  Slot& slot = At(number);
  if (number >= first_) {
    counters_.lost += slot.state != State::kCame ? 1 : 0;
    counters_.repaired += slot.state == State::kRebuilt ? 1 : 0;
    if (slot.state != State::kCame && listener_.lost) {
      listener_.lost(slot.passed_ns, slot.state == State::kRebuilt);
    }
    if (slot.state == State::kMissing) {
      ++(slot.is_protected ? counters_.too_many : counters_.unprotected);
      ++loss_;
    } else {
      EndLoss();
    }
  }
  slot.state = State::kMissing;
  slot.is_protected = false;
}

void FecRepair::EndLoss() {
  if (const std::uint64_t datagrams = std::exchange(loss_, 0); datagrams > 0 && HasFec()) {
    listener_.unrepaired(now_ns_, datagrams);
  }
}

void FecRepair::AddFec(const FecDatagram& fec, std::int64_t time_ns) {
  now_ns_ = time_ns;
  ++(fec.is_row ? counters_.row_datagrams : counters_.column_datagrams);
  if (fec.is_row) {
    counters_.row_length = fec.count;
  } else {
    counters_.columns = fec.offset;
    counters_.rows = fec.count;
  }
  if (given_up_ || !is_begun_) {
    return;
  }
  FollowFec(fec);
  if (!Place(fec, in_hand_)) {
    return;
  }
  for (std::uint32_t i = 0; i < in_hand_.count; ++i) {
    At(in_hand_.base + std::uint64_t{i} * in_hand_.offset).is_protected = true;
  }
  if (Resolve(in_hand_)) {
    ResolveWaiting();
  } else {
    Wait(std::move(in_hand_));
  }
}

// Where media has died, FEC shows that the numbers go on.
void FecRepair::FollowFec(const FecDatagram& fec) {
  const std::uint64_t known = std::max(furthest_of_fec_, highest_of_media_);
  const auto step = static_cast<std::int16_t>(fec.base - static_cast<std::uint16_t>(known));
  const std::uint64_t base = known + static_cast<std::uint64_t>(std::int64_t{step});
  if (step > static_cast<std::int64_t>(kFurthestAhead)) {
    return;  // of something else
  }
  furthest_of_fec_ = std::max(known, base + std::uint64_t{fec.offset} * (fec.count - 1));
  if (furthest_of_fec_ > highest_ + kFurthestAhead) {
    Advance(furthest_of_fec_ - kFurthestAhead - highest_);
    ResolveWaiting();
  }
}

// False where it protects what is no longer kept, or what came before the measurement.
bool FecRepair::Place(const FecDatagram& fec, Waiting& placed) const {
  const auto step = static_cast<std::int16_t>(fec.base - static_cast<std::uint16_t>(highest_));
  placed.base = highest_ + static_cast<std::uint64_t>(std::int64_t{step});
  placed.offset = fec.offset;
  placed.count = fec.count;
  placed.content.length = fec.length_parity;
  placed.content.type = fec.type_parity;
  placed.content.timestamp = fec.time_parity;
  placed.content.bytes.assign(fec.parity.begin(), fec.parity.end());
  return placed.base >= Oldest() && placed.Last() <= highest_ + kFurthestAhead;
}

// False while it may still repair something.
bool FecRepair::Resolve(const Waiting& fec) {
  std::uint32_t missing = 0;
  std::uint64_t number = 0;
  for (std::uint32_t i = 0; i < fec.count; ++i) {
    const std::uint64_t n = fec.base + std::uint64_t{i} * fec.offset;
    if (At(n).state == State::kMissing) {
      ++missing;
      number = n;
    }
  }
  if (missing == 0) {
    Check(fec);
    return true;
  }
  // What has not been reached yet may still come.
  return missing == 1 && number <= highest_ && Rebuild(fec, number);
}

void FecRepair::Check(const Waiting& fec) {
  sum_ = fec.content;
  for (std::uint32_t i = 0; i < fec.count; ++i) {
    const Slot& slot = At(fec.base + std::uint64_t{i} * fec.offset);
    if (!slot.is_whole) {
      return;
    }
    sum_.Add(slot.content);
  }
  const bool is_right =
      sum_.length == 0 && sum_.type == 0 && sum_.timestamp == 0 && IsZero(sum_.bytes);
  if (is_right) {
    ++counters_.parity_right;
  } else {
    NoteWrongParity();
  }
}

// A parity that makes no datagram of the stream is wrong, and of no more use.
bool FecRepair::Rebuild(const Waiting& fec, std::uint64_t number) {
  bool is_whole = true;
  sum_ = fec.content;
  for (std::uint32_t i = 0; i < fec.count; ++i) {
    const std::uint64_t n = fec.base + std::uint64_t{i} * fec.offset;
    if (n != number) {
      is_whole = is_whole && At(n).is_whole;
      sum_.Add(At(n).content);
    }
  }
  if (is_whole && (sum_.length > sum_.bytes.size() || sum_.type != payload_type_)) {
    NoteWrongParity();
    return true;
  }
  if (is_whole) {
    sum_.bytes.resize(sum_.length);
  }
  Slot& slot = At(number);
  slot.state = State::kRebuilt;
  slot.is_whole = is_whole;
  slot.content = sum_;
  return true;
}

void FecRepair::NoteWrongParity() {
  ++counters_.parity_wrong;
  listener_.wrong_parity(now_ns_);
}

// Goes on as long as what one repairs lets another one repair more.
void FecRepair::ResolveWaiting() {
  while (std::erase_if(waiting_, [this](const Waiting& fec) { return Resolve(fec); }) > 0) {
  }
}

void FecRepair::Wait(Waiting&& fec) {
  if (waiting_.size() == kMostWaiting) {
    waiting_.erase(waiting_.begin());
  }
  waiting_.push_back(std::move(fec));
}

void FecRepair::Finish() {
  if (given_up_ || !is_begun_) {
    return;
  }
  Advance(std::max(highest_, furthest_of_fec_) - highest_);
  ResolveWaiting();
  for (std::uint64_t n = OldestOfStream(); n <= highest_; ++n) {
    Retire(n);
  }
  EndLoss();
  is_begun_ = false;
}

void FecRepair::GiveUp() {
  given_up_ = true;
  slots_ = {};
  waiting_ = {};
  in_hand_ = {};
  sum_ = {};
}

}  // namespace ipplay::measure
