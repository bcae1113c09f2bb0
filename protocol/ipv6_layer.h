// SPDX-License-Identifier: MIT
// IPv6 header (RFC 8200 section 3).
//
//   offset  size
//        0     4  version (4 bits), traffic class (8), flow label (20)
//        4     2  payload length: all that follows this header
//        6     1  next header
//        7     1  hop limit
//        8    16  source address
//       24    16  destination address
#pragma once

#include <cstdint>

#include "ipplayout/ipplayout.h"
#include "platform/addresses.h"
#include "protocol/layer.h"
#include "protocol/pdu.h"

namespace ipplayout {

// Describes an IPv6 header. The payload length is carried but recomputed for every frame.
class IPv6DataFlowSpecifier {
 public:
  explicit IPv6DataFlowSpecifier(const IPv6HeaderSettings& settings);
  virtual ~IPv6DataFlowSpecifier() = default;
  IPv6DataFlowSpecifier(const IPv6DataFlowSpecifier&) = default;
  IPv6DataFlowSpecifier& operator=(const IPv6DataFlowSpecifier&) = default;

  std::uint8_t Version() const { return version_; }
  std::uint8_t TrafficClass() const { return traffic_class_; }
  std::uint32_t FlowLabel() const { return flow_label_; }
  std::uint16_t PayloadLength() const { return payload_length_; }
  std::uint32_t NextHeader() const { return next_header_; }
  std::uint8_t HopLimit() const { return hop_limit_; }
  const platform::Ipv6Address& SourceAddress() const { return source_; }
  const platform::Ipv6Address& DestinationAddress() const { return destination_; }

 private:
  std::uint8_t version_;
  std::uint8_t traffic_class_;
  std::uint32_t flow_label_;
  std::uint16_t payload_length_;
  std::uint32_t next_header_;
  std::uint8_t hop_limit_;
  platform::Ipv6Address source_;
  platform::Ipv6Address destination_;
};

class IPv6DataFlowOut final : public Layer {
 public:
  static constexpr std::uint32_t kHeaderLength = 40;

  IPv6DataFlowOut(const IPv6DataFlowSpecifier& specifier, Sender* next);

  bool Send(PDU& frame) override;

 private:
  void WriteFields(const Ipv6Fields& fields);

  std::uint8_t version_;
  PDU header_;
};

}  // namespace ipplayout
