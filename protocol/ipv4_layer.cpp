// SPDX-License-Identifier: MIT
#include "protocol/ipv4_layer.h"

#include "protocol/internet_checksum.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kVersionOffset = 0;
constexpr std::uint32_t kTosOffset = 1;
constexpr std::uint32_t kTotalLengthOffset = 2;
constexpr std::uint32_t kIdentificationOffset = 4;
constexpr std::uint32_t kFlagsOffset = 6;
constexpr std::uint32_t kTtlOffset = 8;
constexpr std::uint32_t kProtocolOffset = 9;
constexpr std::uint32_t kChecksumOffset = 10;
constexpr std::uint32_t kSourceOffset = 12;
constexpr std::uint32_t kDestinationOffset = 16;
constexpr std::uint32_t kOptionOffset = 20;

constexpr std::uint32_t kIgmp = 2;
constexpr std::uint32_t kRouterAlert = 0x94040000;  // RFC 2113 section 2.1
constexpr std::uint8_t kDontFragment = 0x40;

std::uint32_t HeaderLength(std::uint32_t protocol) {
  return protocol == kIgmp ? 24 : 20;
}

}  // namespace

IpDataFlowOut::IpDataFlowOut(const IpFlowSpec& spec, Sender* next)
    : Layer(next, HeaderLength(spec.protocol)),
      errors_(spec.errors),
      header_(HeaderLength(spec.protocol)),
      identification_(spec.identification) {
  header_.WriteByte(static_cast<std::uint8_t>(spec.version * 16 + header_.Length() / 4),
                    kVersionOffset);
  header_.WriteByte(spec.tos, kTosOffset);
  header_.WriteByte(spec.dont_fragment ? kDontFragment : 0, kFlagsOffset);
  header_.WriteByte(spec.ttl, kTtlOffset);
  header_.WriteByte(static_cast<std::uint8_t>(spec.protocol), kProtocolOffset);
  header_.WriteBytes(spec.source.data(), 4, kSourceOffset);
  header_.WriteBytes(spec.destination.data(), 4, kDestinationOffset);
  if (spec.protocol == kIgmp) {
    header_.WriteU32(kRouterAlert, kOptionOffset);
  }
}

bool IpDataFlowOut::Send(PDU& frame) {
  std::uint32_t copy_index = 0;
  if (IsReplicated()) {
    copy_index = TakeCopyFields();
  } else {
    header_.WriteU16(identification_++, kIdentificationOffset);
  }
  header_.WriteU16(static_cast<std::uint16_t>(frame.Length() - HeaderOffset()), kTotalLengthOffset);
  header_.WriteU16(0, kChecksumOffset);
  std::uint16_t checksum = InternetChecksum({header_.Data(), header_.Length()});
  if (IsChecksumToBeWrong(copy_index)) {
    ++checksum;
  }
  header_.WriteU16(checksum, kChecksumOffset);
  frame.WritePdu(header_, HeaderOffset());
  return SendNext(frame);
}

std::uint32_t IpDataFlowOut::TakeCopyFields() {
  IpFields fields;
  Replication().GetIpFields(fields);
  header_.WriteBytes(fields.source.data(), 4, kSourceOffset);
  header_.WriteBytes(fields.destination.data(), 4, kDestinationOffset);
  header_.WriteByte(static_cast<std::uint8_t>(fields.protocol), kProtocolOffset);
  header_.WriteByte(fields.tos, kTosOffset);
  header_.WriteByte(fields.ttl, kTtlOffset);
  header_.WriteU16(static_cast<std::uint16_t>(fields.identification), kIdentificationOffset);
  return Replication().CopyIndex();
}

bool IpDataFlowOut::IsChecksumToBeWrong(std::uint32_t copy_index) {
  if (errors_ == nullptr) {
    return false;
  }
  if (copy_index == 0) {
    damage_ = errors_->IsIpChecksumError(1) == 1;
    if (damage_) {
      errors_->CountIpChecksumError();
    }
  }
  return damage_;
}

}  // namespace ipplayout
