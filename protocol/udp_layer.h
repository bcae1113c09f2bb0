// SPDX-License-Identifier: MIT
// UDP header (RFC 768), with a checksum that is always computed.
//
//   offset  size
//        0     2  source port
//        2     2  destination port
//        4     2  length: UDP header, RTP header and payload
//        6     2  checksum over the pseudo-header (RFC 768; RFC 8200 section 8.1) and the datagram
#pragma once

#include <cstdint>

#include "platform/addresses.h"
#include "protocol/error_manager_base.h"
#include "protocol/layer.h"
#include "protocol/pdu.h"

namespace ipplayout {

struct UdpSettings {
  std::uint32_t source_port = 0;       // low 16 bits used
  std::uint32_t destination_port = 0;  // low 16 bits used
  platform::Ipv4Address source_ip{};
  platform::Ipv4Address destination_ip{};
  platform::Ipv6Address source_ipv6{};
  platform::Ipv6Address destination_ipv6{};
  CErrorManagerBase* errors = nullptr;
  bool is_ipv4 = true;
};

class UdpDataFlowOut final : public Layer {
 public:
  static constexpr std::uint32_t kHeaderLength = 8;

  UdpDataFlowOut(const UdpSettings& settings, Sender* next);

  bool Send(PDU& frame) override;

 private:
  void TakeCopyFields();
  std::uint32_t WritePseudoHeader(PDU& frame, std::uint32_t datagram_length) const;
  std::uint16_t Checksum(PDU& frame) const;
  bool IsChecksumToBeWrong(std::uint32_t copy_index);

  UdpSettings settings_;  // the addresses are those of the copy being sent
  PDU header_;
  bool damage_ = false;  // the decision made for the first copy, shared by all
};

}  // namespace ipplayout
