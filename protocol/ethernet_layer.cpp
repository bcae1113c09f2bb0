// SPDX-License-Identifier: MIT
#include "protocol/ethernet_layer.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kDestinationOffset = 0;
constexpr std::uint32_t kSourceOffset = 6;
constexpr std::uint32_t kEtherTypeOffset = 12;

}  // namespace

EthernetDataFlowOut::EthernetDataFlowOut(const EthernetFlowSpec& spec, Sender* next)
    : Layer(next, kHeaderLength), errors_(spec.errors), header_(kHeaderLength) {
  header_.WriteBytes(spec.destination.data(), 6, kDestinationOffset);
  header_.WriteBytes(spec.source.data(), 6, kSourceOffset);
  header_.WritePdu(spec.ether_type, kEtherTypeOffset);
}

bool EthernetDataFlowOut::Send(PDU& frame) {
  std::uint32_t copy_index = 0;
  if (IsReplicated()) {
    copy_index = Replication().CopyIndex();
    TakeCopyFields();
  }
  frame.WritePdu(header_, 0);
  if (errors_ != nullptr) {
    if (!SendHeldFrame(copy_index)) {
      return false;
    }
    if (IsWithheld(frame, copy_index)) {
      return true;
    }
  }
  return SendNext(frame);
}

void EthernetDataFlowOut::TakeCopyFields() {
  EthernetFields fields;
  Replication().GetEthernetFields(fields);
  header_.WriteBytes(fields.destination_mac.data(), 6, kDestinationOffset);
  header_.WriteBytes(fields.source_mac.data(), 6, kSourceOffset);
  header_.WriteU16(static_cast<std::uint16_t>(fields.ether_type), kEtherTypeOffset);
}

bool EthernetDataFlowOut::SendHeldFrame(std::uint32_t copy_index) {
  PDU* held = errors_->GetHeldFrame(copy_index);
  if (held == nullptr) {
    return true;
  }
  const bool sent = SendNext(*held);
  errors_->ReleaseHeldFrame(copy_index);
  return sent;
}

bool EthernetDataFlowOut::IsWithheld(PDU& frame, std::uint32_t copy_index) {
  if (copy_index == 0) {
    delay_ = errors_->IsSequenceError(1) == 1;
    lose_ = errors_->IsPacketLoss(1) == 1;
  }
  if (lose_) {
    return true;
  }
  const bool is_held = delay_ && errors_->HoldFrame(frame, copy_index);
  if (copy_index == 0) {
    delay_ = is_held;
    if (is_held) {
      errors_->CountSequenceError();
    }
  }
  return is_held;
}

}  // namespace ipplayout
