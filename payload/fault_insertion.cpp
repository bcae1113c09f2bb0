// SPDX-License-Identifier: MIT
#include "payload/fault_insertion.h"

#include <algorithm>

namespace ipplayout {

void FaultInsertion::Configure(const IpPlayoutFaults& faults, bool randomize) {
  faults_ = faults;
  flips_.reserve(kMostFlips);
  for (ErrorSchedule* schedule : {&duplicates_, &corruptions_}) {
    schedule->UseRandom(random_);
  }
  duplicates_.Configure(faults.DuplicateCount, faults.DuplicateRange, randomize);
  corruptions_.Configure(faults.CorruptCount, faults.CorruptRange, randomize);
}

void FaultInsertion::Begin(std::uint64_t index, Time due, std::size_t payload_bytes) {
  const std::uint32_t by_chance = ByChance(index);
  const IpPlayoutOrder* order = orders_.For(due);
  is_ordered_ = order != nullptr;
  is_link_down_ = is_ordered_ && order->Count == 0;
  what_ = is_ordered_ ? order->What : by_chance;
  const std::uint32_t amount = is_ordered_ ? order->Amount : 0;
  Raise(amount != 0 ? amount : faults_.DelayDistance);
  flips_.clear();
  if ((what_ & IPPLAYOUT_DID_CORRUPT) != 0) {
    DrawFlips(amount != 0 ? amount : faults_.CorruptBits, payload_bytes);
  }
}

// With a chance of 0 nothing is drawn.
bool FaultInsertion::Happens(double chance) {
  constexpr double kOne = 9007199254740992.0;  // 2^53
  return chance > 0 && static_cast<double>(random_.Next64() >> 11) < chance * kOne;
}

bool FaultInsertion::IsLostByChance() {
  if (Happens(is_bad_ ? faults_.TurnsGood : faults_.TurnsBad)) {
    is_bad_ = !is_bad_;
  }
  return Happens(is_bad_ ? faults_.LoseWhileBad : faults_.Lose);
}

// Draws for every datagram, so that an ordered fault does not shift later random ones.
std::uint32_t FaultInsertion::ByChance(std::uint64_t index) {
  const struct {
    std::uint32_t what;
    bool happens;
  } kDrawn[] = {
      {IPPLAYOUT_DID_LOSE, IsLostByChance()},
      {IPPLAYOUT_DID_DELAY, Happens(faults_.Delay)},
      {IPPLAYOUT_DID_DUPLICATE, Happens(faults_.Duplicate)},
      {IPPLAYOUT_DID_CORRUPT, Happens(faults_.Corrupt)},
      {IPPLAYOUT_DID_IP_CHECKSUM, Happens(faults_.IpChecksum)},
      {IPPLAYOUT_DID_UDP_CHECKSUM, Happens(faults_.UdpChecksum)},
      {IPPLAYOUT_DID_DUPLICATE, duplicates_.Hits(index)},
      {IPPLAYOUT_DID_CORRUPT, corruptions_.Hits(index)},
  };
  std::uint32_t what = 0;
  for (const auto& row : kDrawn) {
    what |= row.happens ? row.what : 0;
  }
  return (what & IPPLAYOUT_DID_LOSE) != 0 ? std::uint32_t{IPPLAYOUT_DID_LOSE} : what;
}

void FaultInsertion::Raise(std::uint32_t distance) {
  if ((what_ & IPPLAYOUT_DID_LOSE) != 0) {
    errors_.GeneratePacketLoss();
  }
  if ((what_ & IPPLAYOUT_DID_DELAY) != 0) {
    errors_.DelayNext(distance);
  }
  if ((what_ & IPPLAYOUT_DID_IP_CHECKSUM) != 0) {
    errors_.GenerateIPChecksumError();
  }
  if ((what_ & IPPLAYOUT_DID_UDP_CHECKSUM) != 0) {
    errors_.GenerateUDPChecksumError();
  }
}

void FaultInsertion::DrawFlips(std::uint32_t bits, std::size_t payload_bytes) {
  const std::size_t all = payload_bytes * 8;
  const std::size_t wanted = std::min<std::size_t>(bits, all);
  while (flips_.size() < wanted) {
    const auto bit = static_cast<std::uint32_t>(random_.Next64() % all);
    if (std::find(flips_.begin(), flips_.end(), bit) == flips_.end()) {
      flips_.push_back(bit);
    }
  }
}

void FaultInsertion::Flip(std::span<std::uint8_t> payload) const {
  for (const std::uint32_t bit : flips_) {
    payload[bit / 8] = static_cast<std::uint8_t>(payload[bit / 8] ^ (1U << bit % 8));
  }
}

void FaultInsertion::End(std::uint64_t index, Time due, std::uint32_t did) {
  if ((did & IPPLAYOUT_DID_DUPLICATE) != 0) {
    duplicated_.fetch_add(1, std::memory_order_relaxed);
  }
  if ((did & IPPLAYOUT_DID_CORRUPT) != 0) {
    corrupted_.fetch_add(1, std::memory_order_relaxed);
  }
  if (is_ordered_ && (did & what_) != 0) {
    orders_.Confirm(index, due);
  }
}

IpPlayoutFaultCounts FaultInsertion::Counts() const {
  return {duplicated_.load(std::memory_order_relaxed), corrupted_.load(std::memory_order_relaxed),
          orders_.Waiting(), orders_.NotReported(), errors_.HeldFrames()};
}

}  // namespace ipplayout
