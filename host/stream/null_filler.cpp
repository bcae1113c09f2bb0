// SPDX-License-Identifier: MIT
#include "host/stream/null_filler.h"

#include <bitstream/mpeg/ts.h>

#include <cmath>

#include "host/base/byte_order.h"
#include "host/stream/pcr.h"

namespace ipplay {
namespace {

constexpr std::uint16_t kNullPid = 0x1FFF;
constexpr double kTicksPerNanosecond = kPcrHz / 1e9;
constexpr std::uint32_t kArrivalMask = 0x3FFFFFFF;
// At 100 Mb/s this is more than half a second.
constexpr std::size_t kMostHeld = std::size_t{8} << 20;
constexpr std::size_t kEmittedAtOnce = std::size_t{64} << 10;

std::int64_t Ticks(double time_ns) {
  return std::llround(time_ns * kTicksPerNanosecond);
}

// IEC 62481-2: two permission bits, then 30 bits of a 27 MHz arrival clock.
void AddToArrival(std::uint8_t* header, std::int64_t ticks) {
  const std::uint32_t word = measure::LoadBe32(header);
  const std::uint32_t arrival = (word + static_cast<std::uint32_t>(ticks)) & kArrivalMask;
  const std::uint32_t stamped = (word & ~kArrivalMask) | arrival;
  for (int i = 0; i < 4; ++i) {
    header[i] = static_cast<std::uint8_t>(stamped >> (24 - 8 * i));
  }
}

}  // namespace

NullFiller::NullFiller(PacketFormat format, const FillPlan& plan)
    : format_(format),
      marks_(plan.pcr_pid, plan.own_packets_per_second),
      slot_ns_(1e9 / plan.packets_per_second),
      gap_ns_(1e9 / plan.own_packets_per_second) {}

bool NullFiller::Run(Bytes packets, const Emit& emit) {
  held_.insert(held_.end(), packets.begin(), packets.end());
  const std::size_t unit = format_.packet_bytes;
  bool goes_on = true;
  while (goes_on && looked_at_ + unit <= held_.size()) {
    if (const auto time = marks_.Add(held_.data() + looked_at_ + format_.SyncOffset())) {
      const auto end_ns = static_cast<double>(time->count());
      const auto count = static_cast<double>(looked_at_ / unit);
      goes_on = looked_at_ == 0 || PlaceHeld(looked_at_, (end_ns - time_ns_) / count, emit);
      time_ns_ = end_ns;
    }
    looked_at_ += unit;
  }
  if (goes_on && held_.size() > kMostHeld) {
    goes_on = PlaceHeld(looked_at_, gap_ns_, emit);
  }
  return goes_on && EmitAll(emit);
}

bool NullFiller::Finish(const Emit& emit) {
  return PlaceHeld(looked_at_, gap_ns_, emit) && EmitAll(emit);
}

bool NullFiller::PlaceHeld(std::size_t end, double gap_ns, const Emit& emit) {
  gap_ns_ = gap_ns;
  for (std::size_t at = 0; at < end; at += format_.packet_bytes) {
    if (!Place(held_.data() + at, time_ns_, emit)) {
      return false;
    }
    time_ns_ += gap_ns;
  }
  held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(end));
  looked_at_ = 0;
  return true;
}

bool NullFiller::Place(const std::uint8_t* packet, double time_ns, const Emit& emit) {
  if (ts_get_pid(packet + format_.SyncOffset()) == kNullPid) {
    return true;
  }
  for (; static_cast<double>(slot_) * slot_ns_ < time_ns; ++slot_) {
    AddNull();
    if (made_.size() >= kEmittedAtOnce && !EmitAll(emit)) {
      return false;
    }
  }
  const double wait_ns = static_cast<double>(slot_) * slot_ns_ - time_ns;
  ++slot_;
  made_.insert(made_.end(), packet, packet + format_.packet_bytes);
  Move(made_.data() + made_.size() - format_.packet_bytes, wait_ns);
  const std::int64_t wait = std::llround(wait_ns);
  if (wait > longest_wait_ns_.load(std::memory_order_relaxed)) {
    longest_wait_ns_.store(wait, std::memory_order_relaxed);
  }
  return true;
}

void NullFiller::Move(std::uint8_t* packet, double wait_ns) {
  const std::int64_t ticks = Ticks(wait_ns);
  if (format_.SyncOffset() == 4) {
    AddToArrival(packet, ticks);
    stamp_ = measure::LoadBe32(packet);
  }
  std::uint8_t* const ts = packet + format_.SyncOffset();
  if (const auto pcr = ReadPcr(ts)) {
    WritePcr(ts, *pcr + static_cast<std::uint64_t>(ticks));
  }
}

void NullFiller::AddNull() {
  const std::size_t at = made_.size();
  made_.resize(at + format_.packet_bytes, 0xFF);
  std::uint8_t* const packet = made_.data() + at;
  ts_pad(packet + format_.SyncOffset());
  if (format_.SyncOffset() == 4) {
    for (int i = 0; i < 4; ++i) {
      packet[i] = static_cast<std::uint8_t>(stamp_ >> (24 - 8 * i));
    }
    AddToArrival(packet, Ticks(slot_ns_));
    stamp_ = measure::LoadBe32(packet);
  }
}

bool NullFiller::EmitAll(const Emit& emit) {
  const bool goes_on = made_.empty() || emit(made_);
  made_.clear();
  return goes_on;
}

}  // namespace ipplay
