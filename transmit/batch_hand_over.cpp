#include "transmit/batch_hand_over.h"

#include <utility>

namespace ipplayout {

bool BatchHandOver::Allocate(std::size_t in_transit, std::size_t capacity) {
  batches_.clear();
  std::vector<Batch> batches(in_transit + 1);
  for (Batch& batch : batches) {
    batch.frames = SendQueue::Allocate(capacity);
    if (batch.frames == nullptr) {
      return false;
    }
  }
  batches_ = std::move(batches);
  handed_ = 0;
  released_ = 0;
  woken_ = false;
  abandoned_ = false;
  return true;
}

void BatchHandOver::WaitForRoom(std::size_t most_in_transit) {
  if (InTransit() >= most_in_transit) {
    WaitUntilInTransit(most_in_transit / 2);
  }
}

void BatchHandOver::WaitUntilInTransit(std::size_t batches) {
  while (InTransit() > batches && !abandoned_) {
    freed_.Reset();
    pump_resumes_at_ = static_cast<std::int64_t>(batches);
    if (InTransit() > batches && !abandoned_) {
      freed_.Wait();
    }
    pump_resumes_at_ = kNobodyWaits;
  }
}

void BatchHandOver::HandOver(double jitter_sum) {
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

void BatchHandOver::Release() {
  Front().frames->Clear();
  released_ = released_ + 1;
  const std::int64_t resumes_at = pump_resumes_at_;
  if (resumes_at != kNobodyWaits && InTransit() <= static_cast<std::size_t>(resumes_at)) {
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
