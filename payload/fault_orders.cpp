// SPDX-License-Identifier: MIT
#include "payload/fault_orders.h"

#include <algorithm>

namespace ipplayout {

bool FaultOrders::Add(const IpPlayoutOrder& order) {
  const platform::MutexLock lock(mutex_);
  if (orders_.size() >= kMost) {
    return false;
  }
  const auto place = std::upper_bound(
      orders_.begin(), orders_.end(), order,
      [](const IpPlayoutOrder& a, const IpPlayoutOrder& b) { return a.AtNs < b.AtNs; });
  orders_.insert(place, order);
  next_ns_.store(orders_.front().AtNs, std::memory_order_relaxed);
  waiting_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

std::size_t FaultOrders::TakeDone(std::span<IpPlayoutDone> out) {
  const platform::MutexLock lock(mutex_);
  const std::size_t taken = std::min(out.size(), done_.size());
  const auto end = done_.begin() + static_cast<std::ptrdiff_t>(taken);
  std::copy(done_.begin(), end, out.begin());
  done_.erase(done_.begin(), end);
  return taken;
}

const IpPlayoutOrder* FaultOrders::For(Time due) {
  if (in_hand_ && in_hand_->Count == 0 && report_.Count > 0 &&
      due.count() - report_.FirstDueNs >= in_hand_->LengthNs) {
    Report();
  }
  if (in_hand_) {
    return &*in_hand_;
  }
  if (next_ns_.load(std::memory_order_relaxed) > due.count()) {
    return nullptr;
  }
  const platform::MutexLock lock(mutex_);
  in_hand_ = orders_.front();
  orders_.pop_front();
  next_ns_.store(orders_.empty() ? kNone : orders_.front().AtNs, std::memory_order_relaxed);
  report_ = {in_hand_->Number, in_hand_->What, 0, 0, 0, 0};
  return &*in_hand_;
}

void FaultOrders::Confirm(std::uint64_t datagram, Time due) {
  if (report_.Count == 0) {
    report_.Datagram = datagram;
    report_.FirstDueNs = due.count();
  }
  report_.LastDueNs = due.count();
  if (++report_.Count == in_hand_->Count) {
    Report();
  }
}

void FaultOrders::Finish() {
  if (in_hand_ && report_.Count > 0) {
    Report();
  }
}

void FaultOrders::Report() {
  in_hand_.reset();
  const platform::MutexLock lock(mutex_);
  if (done_.size() >= kMost) {
    done_.pop_front();
    not_reported_.fetch_add(1, std::memory_order_relaxed);
  }
  done_.push_back(report_);
  waiting_.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace ipplayout
