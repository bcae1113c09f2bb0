// SPDX-License-Identifier: MIT
#include "host/stream/stream_editor.h"

#include <algorithm>

namespace ipplay {

StreamEditor::StreamEditor(PacketFormat format, const EditPlan& plan)
    : input_(format), as_188_(Format(format, plan) != format) {
  if (plan.restamp) {
    restamper_.emplace(Format(format, plan), *plan.restamp);
  }
  if (plan.fill) {
    filler_.emplace(Format(format, plan), *plan.fill);
  }
}

bool StreamEditor::Run(std::span<std::uint8_t> packets, const Emit& emit) {
  const auto edited = as_188_ ? Shorten(packets) : packets;
  if (!restamper_) {
    return Fill(edited, emit);
  }
  return restamper_->Run(edited, [&](Bytes bytes) { return Fill(bytes, emit); });
}

bool StreamEditor::EndRound(const Emit& emit) {
  return !restamper_ || restamper_->Run({}, [&](Bytes bytes) { return Fill(bytes, emit); });
}

void StreamEditor::StartNextRound() {
  if (restamper_) {
    restamper_->StartNextRound();
  }
  if (const auto pid = PartPcrPid(); pid && filler_) {
    filler_->Follow(*pid);
  }
}

bool StreamEditor::Finish(const Emit& emit) {
  return !filler_ || filler_->Finish(emit);
}

bool StreamEditor::Fill(Bytes packets, const Emit& emit) {
  return filler_ ? filler_->Run(packets, emit) : emit(packets);
}

std::span<std::uint8_t> StreamEditor::Shorten(std::span<std::uint8_t> packets) const {
  constexpr std::size_t kBytes = 188;
  const std::size_t count = packets.size() / input_.packet_bytes;
  for (std::size_t i = 0; i < count; ++i) {
    const auto packet = packets.subspan(i * input_.packet_bytes + input_.SyncOffset(), kBytes);
    std::copy(packet.begin(), packet.end(),
              packets.begin() + static_cast<std::ptrdiff_t>(i * kBytes));
  }
  return packets.first(count * kBytes);
}

}  // namespace ipplay
