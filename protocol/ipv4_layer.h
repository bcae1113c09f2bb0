// SPDX-License-Identifier: MIT
// IPv4 header (RFC 791).
//
//   offset  size
//        0     1  version, IHL (5, or 6 with the option)
//        1     1  type of service
//        2     2  total length
//        4     2  identification
//        6     2  don't fragment (0x4000) or 0; fragment offset 0
//        8     1  time to live
//        9     1  protocol
//       10     2  header checksum
//       12     4  source address
//       16     4  destination address
//       20     4  router alert option (RFC 2113), only with protocol 2 (IGMP)
#pragma once

#include <cstdint>

#include "platform/addresses.h"
#include "protocol/error_manager_base.h"
#include "protocol/layer.h"
#include "protocol/pdu.h"

namespace ipplayout {

struct IpFlowSpec {
  std::uint8_t ttl = 0;
  std::uint32_t protocol = 0;  // low 8 bits sent
  platform::Ipv4Address source{};
  platform::Ipv4Address destination{};
  std::uint8_t version = 0;
  std::uint8_t tos = 0;
  bool dont_fragment = false;
  std::uint16_t identification = 0;
  CErrorManagerBase* errors = nullptr;
};

// Header length and option are decided at construction; a replicated copy keeps them even where its
// protocol differs.
class IpDataFlowOut final : public Layer {
 public:
  IpDataFlowOut(const IpFlowSpec& spec, Sender* next);

  bool Send(PDU& frame) override;

 private:
  std::uint32_t TakeCopyFields();
  bool IsChecksumToBeWrong(std::uint32_t copy_index);

  CErrorManagerBase* errors_;
  PDU header_;
  std::uint16_t identification_;
  bool damage_ = false;  // the decision made for the first copy, shared by all
};

}  // namespace ipplayout
