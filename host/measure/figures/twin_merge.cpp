// SPDX-License-Identifier: MIT
#include "host/measure/figures/twin_merge.h"

#include <algorithm>
#include <utility>

namespace ipplay::measure {

void TwinMerge::Begin(std::uint64_t number) {
  DeliverKept(UINT64_MAX);
  DeliverFec(UINT64_MAX);
  known_fec_.clear();
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
  Deliver(number, arrival);
  ++next_;
  SkipTo(next_);
}

void TwinMerge::AddFec(std::uint64_t base, const FecDatagram& fec, std::int64_t time_ns) {
  const std::uint64_t last = base + std::uint64_t{fec.offset} * (fec.count - 1);
  const FecKey key{last, base, fec.offset};
  if (!known_fec_.insert(key).second) {
    return;
  }
  if (known_fec_.size() > kMostFec) {
    DeliverFec(std::get<0>(*known_fec_.begin()) + 1);
    known_fec_.erase(known_fec_.begin());
  }
  KeptFec& kept = fec_[key];
  kept = {time_ns, fec, {fec.parity.begin(), fec.parity.end()}};
  kept.fec.parity = kept.parity;
  DeliverFec(next_);
}

void TwinMerge::DeliverFec(std::uint64_t below) {
  while (!fec_.empty() && std::get<0>(fec_.begin()->first) < below) {
    const KeptFec& kept = fec_.begin()->second;
    combined_.AddFec(kept.fec, std::max(last_ns_, kept.time_ns));
    fec_.erase(fec_.begin());
  }
}

// What stands in order behind it goes on as well.
void TwinMerge::SkipTo(std::uint64_t number) {
  next_ = std::max(next_, number);
  DeliverKept(next_);
  while (!kept_.empty() && kept_.begin()->first == next_) {
    DeliverKept(++next_);
  }
  DeliverFec(next_);
}

void TwinMerge::DeliverKept(std::uint64_t below) {
  while (!kept_.empty() && kept_.begin()->first < below) {
    const Kept& kept = kept_.begin()->second;
    Deliver(kept_.begin()->first, {kept.time_ns, kept.frame_bytes, &kept.frame, &kept.rtp});
    kept_.erase(kept_.begin());
  }
}

void TwinMerge::Deliver(std::uint64_t number, const Arrival& arrival) {
  first_ = first_.value_or(number);
  Arrival in_order = arrival;
  in_order.time_ns = last_ns_ = std::max(last_ns_, arrival.time_ns);
  combined_.Add(in_order);
}

}  // namespace ipplay::measure
