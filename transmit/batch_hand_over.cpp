// SPDX-License-Identifier: MIT
#include "transmit/batch_hand_over.h"

#include <utility>

namespace ipplayout {

bool BatchHandOver::Allocate(std::size_t waiting, std::size_t capacity) {
  batches_.clear();
  std::vector<Batch> batches(waiting + 2);
  for (Batch& batch : batches) {
    batch.frames = SendQueue::Allocate(capacity);
    if (batch.frames == nullptr) {
      return false;
    }
  }
  batches_ = std::move(batches);
  handed_ = 0;
  passed_ = 0;
  released_ = 0;
  woken_ = false;
  abandoned_ = false;
  return true;
}

void BatchHandOver::WaitForRoom(std::size_t most) {
  if (!HasRoom(most)) {
    WaitUntil(passed_, awaited_passed_, handed_ - most / 2);
  }
}

void BatchHandOver::WaitUntilEmpty() {
  WaitUntil(released_, awaited_released_, handed_);
}

void BatchHandOver::WaitUntil(const Counter& counter, Counter& awaited, std::uint64_t count) {
  while (counter < count && !abandoned_) {
    freed_.Reset();
    awaited = count;
    if (counter < count && !abandoned_) {
      freed_.Wait();
    }
    awaited = kNobodyWaits;
  }
}

void BatchHandOver::HandOver(Seconds jitter_sum) {
  At(handed_).jitter_sum = jitter_sum;
  handed_ = handed_ + 1;
  ready_.Set();
}

void BatchHandOver::Wait() {
  while (!HasBatch() && !woken_.exchange(false)) {
    ready_.Reset();
    if (!HasBatch() && !woken_) {
      ready_.Wait();
    }
  }
}

void BatchHandOver::Pass() {
  Advance(passed_, awaited_passed_, released_ + 1);
}

void BatchHandOver::Release() {
  Front().frames->Clear();
  const std::uint64_t released = released_ + 1;
  Advance(released_, awaited_released_, released);
  if (passed_ != released) {
    Advance(passed_, awaited_passed_, released);
  }
}

void BatchHandOver::Advance(Counter& counter, const Counter& awaited, std::uint64_t count) {
  counter = count;
  if (count >= awaited) {
    freed_.Set();
  }
}

void BatchHandOver::Abandon() {
  abandoned_ = true;
  freed_.Set();
}

void BatchHandOver::Wake() {
  woken_ = true;
  ready_.Set();
}

}  // namespace ipplayout
