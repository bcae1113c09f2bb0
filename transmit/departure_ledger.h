// SPDX-License-Identifier: MIT
// What became of each frame, for whoever asks.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "ipplayout/playouts.h"
#include "platform/pages.h"
#include "platform/signal.h"

namespace ipplayout {

// A ring of fixed size. The transmitter adds; one thread at a time takes. A full one counts what it
// has no room for and keeps what it has.
//
// A record that awaits a stamp of the kernel, and those behind it, are not taken before the stamp
// has come. It comes in the order of departure, if at all: a later one, or a record that is added
// some time after, ends the wait.
//
// Who waits for records says so in a flag and looks at the counter again; the transmitter moves the
// counter and then looks at the flag. All four steps are sequentially consistent.
class DepartureLedger {
 public:
  using Time = std::chrono::nanoseconds;

  // Room for `frames` records, each with up to `frame_bytes` of its frame; 0 keeps none and counts
  // none.
  DepartureLedger(std::size_t frames, std::size_t frame_bytes);

  static constexpr std::size_t BytesFor(std::size_t frames, std::size_t frame_bytes) {
    return frames * StrideFor(frame_bytes);
  }

  bool IsKept() const { return capacity_ != 0; }
  bool IsAllocated() const { return capacity_ == 0 || slots_.Data() != nullptr; }

  // ---- Transmitter ----

  static constexpr std::uint64_t kNowhere = UINT64_MAX;
  // Where the record is, for Stamp.
  std::uint64_t Add(const IpPlayoutDeparture& departure, std::span<const std::uint8_t> frame,
                    bool awaits_stamp);
  void Stamp(std::uint64_t place, Time stamp);
  // No stamp comes any more.
  void Settle() { SettleUpTo(added_); }
  bool IsFull() const { return added_ - taken_.load(std::memory_order_acquire) == capacity_; }

  // ---- Who takes ----

  // The oldest record, with its frame where they are kept; null when there is none. Valid until the
  // next Pop.
  const IpPlayoutDeparture* Front() const;
  std::span<const std::uint8_t> FrameOf(const IpPlayoutDeparture& departure) const;
  void Pop() { taken_.store(taken_.load(std::memory_order_relaxed) + 1); }

  // Around a wait for half of the room to be taken up. Between the two the waiting thread looks
  // for other reasons not to wait, which are followed by Wake.
  void PrepareToWait();
  void WaitUntil(Time deadline);
  void Wake() { wanted_.Set(); }

  std::uint64_t LeftOut() const { return left_out_.load(std::memory_order_relaxed); }

 private:
  // Whole cache lines.
  static constexpr std::size_t StrideFor(std::size_t frame_bytes) {
    constexpr std::size_t kLine = 64;
    return (sizeof(IpPlayoutDeparture) + frame_bytes + kLine - 1) / kLine * kLine;
  }
  IpPlayoutDeparture& At(std::uint64_t count) const {
    return *reinterpret_cast<IpPlayoutDeparture*>(slots_.Data() + count % capacity_ * stride_);
  }
  void SettleUpTo(std::uint64_t end);
  void GiveUpStampsBefore(Time time);
  bool IsHalfFull() const { return settled_.load() - taken_.load() >= (capacity_ + 1) / 2; }

  const std::size_t capacity_;
  const std::size_t frame_bytes_;
  const std::size_t stride_;
  const platform::Pages slots_;

  alignas(64) std::atomic<std::uint64_t> settled_{0};  // may be taken; written by the transmitter
  std::uint64_t added_ = 0;                            // the transmitter's own
  std::atomic<std::uint64_t> left_out_{0};
  alignas(64) std::atomic<std::uint64_t> taken_{0};
  std::atomic<bool> awaits_half_{false};
  platform::Signal wanted_;
};

// Takes the oldest records, by `Convert`; returns how many.
template <typename Record, typename Convert>
std::size_t TakeRecords(DepartureLedger& ledger, std::span<Record> out, Convert convert) {
  std::size_t count = 0;
  for (; count < out.size(); ++count) {
    const IpPlayoutDeparture* const departure = ledger.Front();
    if (departure == nullptr) {
      break;
    }
    out[count] = convert(*departure);
    ledger.Pop();
  }
  return count;
}

}  // namespace ipplayout
