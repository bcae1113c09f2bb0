// SPDX-License-Identifier: MIT
#include "transmit/departure_ledger.h"

#include <cstring>

namespace ipplayout {
namespace {

// In place of a stamp that is to come.
constexpr std::int64_t kAwaited = -2;
constexpr std::chrono::nanoseconds kLongestWaitForStamp = std::chrono::seconds(1);
// Pages of a larger one come as it fills: it may never.
constexpr std::size_t kMostAtOnce = 64 << 20;

platform::Pages::When WhenFor(std::size_t bytes) {
  return bytes <= kMostAtOnce ? platform::Pages::When::kAtOnce : platform::Pages::When::kAsUsed;
}

}  // namespace

DepartureLedger::DepartureLedger(std::size_t frames, std::size_t frame_bytes)
    : capacity_(frames),
      frame_bytes_(frame_bytes),
      stride_(StrideFor(frame_bytes)),
      slots_(frames * stride_, WhenFor(frames * stride_)) {}

std::uint64_t DepartureLedger::Add(const IpPlayoutDeparture& departure,
                                   std::span<const std::uint8_t> frame, bool awaits_stamp) {
  if (added_ != settled_.load(std::memory_order_relaxed)) {
    GiveUpStampsBefore(Time(departure.PlaceNs) - kLongestWaitForStamp);
  }
  if (IsFull()) {
    left_out_.store(left_out_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return kNowhere;
  }
  IpPlayoutDeparture& slot = At(added_);
  slot = departure;
  slot.StampNs = awaits_stamp ? kAwaited : -1;
  if (frame_bytes_ != 0) {
    std::memcpy(&slot + 1, frame.data(), frame.size());
  }
  const bool is_next = settled_.load(std::memory_order_relaxed) == added_;
  ++added_;
  if (is_next && !awaits_stamp) {
    SettleUpTo(added_);
  }
  return added_ - 1;
}

void DepartureLedger::Stamp(std::uint64_t place, Time stamp) {
  if (place == kNowhere || place < settled_.load(std::memory_order_relaxed)) {
    return;
  }
  At(place).StampNs = stamp.count();
  std::uint64_t end = place + 1;
  while (end < added_ && At(end).StampNs != kAwaited) {
    ++end;
  }
  SettleUpTo(end);
}

void DepartureLedger::SettleUpTo(std::uint64_t end) {
  for (std::uint64_t i = settled_.load(std::memory_order_relaxed); i < end; ++i) {
    if (At(i).StampNs == kAwaited) {
      At(i).StampNs = -1;
    }
  }
  settled_.store(end);
  if (awaits_half_.load() && IsHalfFull() && awaits_half_.exchange(false)) {
    wanted_.Set();
  }
}

void DepartureLedger::GiveUpStampsBefore(Time time) {
  std::uint64_t end = settled_.load(std::memory_order_relaxed);
  while (end < added_ && (At(end).StampNs != kAwaited || At(end).PlaceNs < time.count())) {
    ++end;
  }
  if (end != settled_.load(std::memory_order_relaxed)) {
    SettleUpTo(end);
  }
}

const IpPlayoutDeparture* DepartureLedger::Front() const {
  const std::uint64_t taken = taken_.load(std::memory_order_relaxed);
  return settled_.load(std::memory_order_acquire) == taken ? nullptr : &At(taken);
}

std::span<const std::uint8_t> DepartureLedger::FrameOf(const IpPlayoutDeparture& departure) const {
  return {reinterpret_cast<const std::uint8_t*>(&departure + 1),
          frame_bytes_ == 0 ? 0 : departure.Frame.Bytes};
}

void DepartureLedger::PrepareToWait() {
  wanted_.Reset();
  awaits_half_.store(true);
}

void DepartureLedger::WaitUntil(Time deadline) {
  if (!IsHalfFull()) {
    wanted_.WaitUntil(deadline);
  }
  awaits_half_.store(false);
}

}  // namespace ipplayout
