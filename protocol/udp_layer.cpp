// SPDX-License-Identifier: MIT
#include "protocol/udp_layer.h"

#include "protocol/internet_checksum.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kSourcePortOffset = 0;
constexpr std::uint32_t kDestinationPortOffset = 2;
constexpr std::uint32_t kLengthOffset = 4;
constexpr std::uint32_t kChecksumOffset = 6;

// The pseudo-header has UDP's number even where the IP header is set to claim another protocol.
constexpr std::uint8_t kUdpProtocol = 17;

constexpr std::uint32_t kIpv4PseudoHeaderLength = 12;
constexpr std::uint32_t kIpv6PseudoHeaderLength = 40;

}  // namespace

UdpDataFlowOut::UdpDataFlowOut(const UdpSettings& settings, Sender* next)
    : Layer(next, kHeaderLength), settings_(settings), header_(kHeaderLength) {
  header_.WriteU16(static_cast<std::uint16_t>(settings.source_port), kSourcePortOffset);
  header_.WriteU16(static_cast<std::uint16_t>(settings.destination_port), kDestinationPortOffset);
}

bool UdpDataFlowOut::Send(PDU& frame) {
  std::uint32_t copy_index = 0;
  if (IsReplicated()) {
    copy_index = Replication().CopyIndex();
    TakeCopyFields();
  }
  header_.WriteU16(static_cast<std::uint16_t>(frame.Length() - HeaderOffset()), kLengthOffset);
  frame.WritePdu(header_, HeaderOffset());
  std::uint16_t checksum = Checksum(frame);
  if (IsChecksumToBeWrong(copy_index)) {
    ++checksum;
  }
  frame.WriteU16(checksum, HeaderOffset() + kChecksumOffset);
  return SendNext(frame);
}

void UdpDataFlowOut::TakeCopyFields() {
  UdpFields ports;
  Replication().GetUdpFields(ports);
  header_.WriteU16(static_cast<std::uint16_t>(ports.source_port), kSourcePortOffset);
  header_.WriteU16(static_cast<std::uint16_t>(ports.destination_port), kDestinationPortOffset);
  if (settings_.is_ipv4) {
    IpFields fields;
    Replication().GetIpFields(fields);
    settings_.source_ip = fields.source;
    settings_.destination_ip = fields.destination;
  } else {
    Ipv6Fields fields;
    Replication().GetIpv6Fields(fields);
    settings_.source_ipv6 = fields.source;
    settings_.destination_ipv6 = fields.destination;
  }
}

// Written into the bytes just below the UDP header, which the IP layer fills afterwards, so that
// one pass over the frame sums it all. Returns its length.
std::uint32_t UdpDataFlowOut::WritePseudoHeader(PDU& frame, std::uint32_t datagram_length) const {
  const std::uint32_t end = HeaderOffset();
  if (settings_.is_ipv4) {
    frame.WriteBytes(settings_.source_ip.data(), 4, end - 12);
    frame.WriteBytes(settings_.destination_ip.data(), 4, end - 8);
    frame.WriteByte(0, end - 4);
    frame.WriteByte(kUdpProtocol, end - 3);
    frame.WriteU16(static_cast<std::uint16_t>(datagram_length), end - 2);
    return kIpv4PseudoHeaderLength;
  }
  frame.WriteBytes(settings_.source_ipv6.data(), 16, end - 40);
  frame.WriteBytes(settings_.destination_ipv6.data(), 16, end - 24);
  frame.WriteU32(datagram_length, end - 8);
  frame.WriteU32(kUdpProtocol, end - 4);
  return kIpv6PseudoHeaderLength;
}

std::uint16_t UdpDataFlowOut::Checksum(PDU& frame) const {
  const std::uint32_t datagram_length = frame.Length() - HeaderOffset();
  const std::uint32_t pseudo_length = WritePseudoHeader(frame, datagram_length);
  const std::uint16_t checksum = InternetChecksum(
      {frame.Data() + HeaderOffset() - pseudo_length, pseudo_length + datagram_length});
  return checksum == 0 ? 0xFFFF : checksum;  // RFC 768: zero would mean "no checksum"
}

bool UdpDataFlowOut::IsChecksumToBeWrong(std::uint32_t copy_index) {
  if (settings_.errors == nullptr) {
    return false;
  }
  if (copy_index == 0) {
    damage_ = settings_.errors->IsUdpChecksumError(1) == 1;
    if (damage_) {
      settings_.errors->CountUdpChecksumError();
    }
  }
  return damage_;
}

}  // namespace ipplayout
