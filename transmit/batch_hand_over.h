// Batches of frames on their way from the data pump to the transmitter.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "driver/send_queue.h"
#include "platform/signal.h"

namespace ipplayout {

struct Batch {
  std::unique_ptr<SendQueue> frames;
  double jitter_sum = 0;  // of the offsets applied within the batch, in seconds
};

// A ring of batches: the pump fills one, the others are in transit or empty. Pump and transmitter
// meet in two counters. Whoever has to wait resets its signal, publishes that it waits, looks at
// the counters again and then sleeps; the other side moves its counter and then looks whether
// somebody waits. All of it is sequentially consistent, so one of the two always sees the other.
class BatchHandOver {
 public:
  BatchHandOver() = default;
  BatchHandOver(const BatchHandOver&) = delete;
  BatchHandOver& operator=(const BatchHandOver&) = delete;

  // Room for one batch being filled and `in_transit` handed over, of `capacity` bytes each; empty
  // afterwards. False when the memory cannot be had. While neither side runs, as is Clear.
  bool Allocate(std::size_t in_transit, std::size_t capacity);
  void Clear() { batches_.clear(); }
  bool IsAllocated() const { return !batches_.empty(); }

  // The pump's side.
  SendQueue& Filling() { return *At(handed_).frames; }
  // Waits until fewer than `most_in_transit` batches are in transit; where more than one may be, a
  // full ring is waited for until half of it is free.
  void WaitForRoom(std::size_t most_in_transit);
  void WaitUntilEmpty() { WaitUntilInTransit(0); }
  // Passes the filled batch on; the next one is empty. After WaitForRoom.
  void HandOver(double jitter_sum);

  // The transmitter's side.
  // Waits until a batch has been handed over, or Wake was called.
  void Wait();
  bool HasBatch() const { return InTransit() != 0; }
  Batch& Front() { return At(released_); }
  // The batch in front has been transmitted.
  void Release();
  // No batch will be transmitted any more: the pump waits for none from now on, whether it is
  // handed over before or after this.
  void Abandon();

  // Wakes the transmitter without a batch. Any thread.
  void Wake();

 private:
  static constexpr std::int64_t kNobodyWaits = -1;

  Batch& At(std::uint64_t count) { return batches_[count % batches_.size()]; }
  std::size_t InTransit() const { return static_cast<std::size_t>(handed_ - released_); }
  void WaitUntilInTransit(std::size_t batches);

  std::vector<Batch> batches_;

  alignas(64) std::atomic<std::uint64_t> handed_{0};         // written by the pump
  std::atomic<std::int64_t> pump_resumes_at_{kNobodyWaits};  // written by the pump
  alignas(64) std::atomic<std::uint64_t> released_{0};       // written by the transmitter
  alignas(64) platform::Signal ready_;
  std::atomic<bool> woken_{false};
  std::atomic<bool> abandoned_{false};  // written by the transmitter
  alignas(64) platform::Signal freed_;
};

}  // namespace ipplayout
