// SPDX-License-Identifier: MIT
// Batches of frames on their way from the data pump to the transmitter.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "driver/send_queue.h"
#include "platform/signal.h"
#include "transmit/seconds.h"

namespace ipplayout {

struct Batch {
  std::unique_ptr<SendQueue> frames;
  Seconds jitter_sum{0};  // of the offsets applied within the batch
};

// A ring of batches: the pump fills one, the others are in transit or empty. Pump and transmitter
// meet in counters. Whoever has to wait resets its signal, publishes what it waits for, looks at
// the counters again and then sleeps; the other side moves its counter and then looks whether
// somebody waits. All of it is sequentially consistent, so one of the two always sees the other.
class BatchHandOver {
 public:
  BatchHandOver() = default;
  BatchHandOver(const BatchHandOver&) = delete;
  BatchHandOver& operator=(const BatchHandOver&) = delete;

  // Room for one batch being filled, `waiting` handed over and one passed, of `capacity` bytes
  // each; empty afterwards. False when memory runs out. While neither side runs, as is
  // Clear.
  bool Allocate(std::size_t waiting, std::size_t capacity);
  void Clear() { batches_.clear(); }
  bool IsAllocated() const { return !batches_.empty(); }

  // The pump's side.
  SendQueue& Filling() { return *At(handed_).frames; }
  // Fewer than `most` batches have been handed over and not passed.
  bool HasRoom(std::size_t most) const { return handed_ - passed_ < most; }
  // Waits until fewer than `most` batches have been handed over and not passed; where more than one
  // may be, a full ring is waited for until half of it is free.
  void WaitForRoom(std::size_t most);
  // Waits until all batches are released.
  void WaitUntilEmpty();
  // Passes the filled batch on; the next one is empty. After WaitForRoom.
  void HandOver(Seconds jitter_sum);

  // The transmitter's side.
  // Waits until a batch has been handed over, or Wake was called.
  void Wait();
  // Batches that were handed over and not released, that of an abandoned transmission included.
  std::uint64_t InHand() const { return handed_ - released_; }
  bool HasBatch() const { return handed_ != released_; }
  Batch& Front() { return At(released_); }
  // The batch in front makes room for the next one although it has yet to be transmitted.
  void Pass();
  // The batch in front has been transmitted.
  void Release();
  // No batch will be transmitted any more: the pump waits for none from now on, whether it is
  // handed over before or after this.
  void Abandon();
  bool IsAbandoned() const { return abandoned_; }

  // Wakes the transmitter without a batch. Any thread.
  void Wake();

 private:
  using Counter = std::atomic<std::uint64_t>;
  static constexpr std::uint64_t kNobodyWaits = ~std::uint64_t{0};

  Batch& At(std::uint64_t count) { return batches_[count % batches_.size()]; }
  void WaitUntil(const Counter& counter, Counter& awaited, std::uint64_t count);
  void Advance(Counter& counter, const Counter& awaited, std::uint64_t count);

  std::vector<Batch> batches_;

  // Written by the pump: how many batches it has handed over, and what it waits for.
  alignas(64) Counter handed_{0};
  Counter awaited_passed_{kNobodyWaits};
  Counter awaited_released_{kNobodyWaits};
  // Written by the transmitter: passed_ is released_ or one more.
  alignas(64) Counter passed_{0};
  Counter released_{0};
  alignas(64) platform::Signal ready_;
  std::atomic<bool> woken_{false};
  std::atomic<bool> abandoned_{false};  // written by the transmitter
  alignas(64) platform::Signal freed_;
};

}  // namespace ipplayout
