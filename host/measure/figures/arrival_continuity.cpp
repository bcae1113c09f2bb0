// SPDX-License-Identifier: MIT
#include "host/measure/figures/arrival_continuity.h"

namespace ipplay::measure {

ArrivalContinuity::ArrivalContinuity(std::uint64_t errors, std::span<const PidState> pids)
    : errors_(errors) {
  last_.fill(kUnknown);
  for (const PidState& state : pids) {
    if (state.Has(PidState::kCounterKnown)) {
      last_[state.pid] = state.last_counter;
    }
  }
}

void ArrivalContinuity::Add(std::span<const std::uint8_t> media, std::size_t stride) {
  const std::size_t sync_at = stride == 192 ? 4 : 0;
  for (std::size_t at = sync_at; at + kTsPacketLength <= media.size(); at += stride) {
    if (media[at] == kTsSyncByte) {
      AddPacket(media.subspan(at).first<kTsPacketLength>());
    }
  }
}

void ArrivalContinuity::AddPacket(TsPacket packet) {
  if (HasTransportError(packet) || PidOf(packet) == kNullPid) {
    return;
  }
  std::uint8_t& last = last_[PidOf(packet)];
  const auto expected = static_cast<std::uint8_t>((last + (HasPayload(packet) ? 1 : 0)) & 0x0F);
  const bool repeats = CounterOf(packet) == last;
  if (last != kUnknown && !repeats && CounterOf(packet) != expected && !IsDiscontinuous(packet)) {
    ++errors_;
  }
  last = CounterOf(packet);
}

}  // namespace ipplay::measure
