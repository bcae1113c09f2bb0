// SPDX-License-Identifier: MIT
#include "host/measure/figures/twin_merge.h"

#include <algorithm>
#include <utility>

namespace ipplay::measure {

void TwinMerge::Begin(std::uint64_t number) {
  DeliverKept(UINT64_MAX);
  next_ = number;
}

void TwinMerge::Add(std::uint64_t number, const Arrival& arrival) {
  if (number < next_) {
    return;
  }
  if (number > next_) {
    if (kept_.size() >= kMostWaiting) {
      SkipTo(kept_.begin()->first);
    }
    const std::span payload = arrival.frame->payload;
    Kept& kept = kept_[number];
    kept = {arrival.time_ns,
            arrival.frame_bytes,
            *arrival.frame,
            *arrival.rtp,
            {payload.begin(), payload.end()}};
    kept.frame.payload = kept.payload;
    return;
  }
  Deliver(arrival);
  ++next_;
  SkipTo(next_);
}

// What stands in order behind it goes on as well.
void TwinMerge::SkipTo(std::uint64_t number) {
  next_ = std::max(next_, number);
  DeliverKept(next_);
  while (!kept_.empty() && kept_.begin()->first == next_) {
    DeliverKept(++next_);
  }
}

void TwinMerge::DeliverKept(std::uint64_t below) {
  while (!kept_.empty() && kept_.begin()->first < below) {
    const Kept& kept = kept_.begin()->second;
    Deliver({kept.time_ns, kept.frame_bytes, &kept.frame, &kept.rtp});
    kept_.erase(kept_.begin());
  }
}

void TwinMerge::Deliver(const Arrival& arrival) {
  Arrival in_order = arrival;
  in_order.time_ns = last_ns_ = std::max(last_ns_, arrival.time_ns);
  combined_.Add(in_order);
}

}  // namespace ipplay::measure
