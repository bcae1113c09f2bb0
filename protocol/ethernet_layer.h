// SPDX-License-Identifier: MIT
// Ethernet II header (IEEE 802.3 clause 3.1.1), without padding and frame check sequence.
//
//   offset  size
//        0     6  destination address
//        6     6  source address
//       12     2  EtherType, or the TPID of a tag
#pragma once

#include <cstdint>

#include "platform/addresses.h"
#include "protocol/error_manager_base.h"
#include "protocol/layer.h"
#include "protocol/pdu.h"

namespace ipplayout {

struct EthernetFlowSpec {
  platform::MacAddress source{};
  platform::MacAddress destination{};
  PDU ether_type{2};
  CErrorManagerBase* errors = nullptr;
};

// Addresses are sent as configured: none is derived from the IP destination. This is also where a
// lost frame is dropped, a delayed one held back, and a held frame that is due sent first.
class EthernetDataFlowOut final : public Layer {
 public:
  static constexpr std::uint32_t kHeaderLength = 14;

  EthernetDataFlowOut(const EthernetFlowSpec& spec, Sender* next);

  bool Send(PDU& frame) override;

 private:
  void TakeCopyFields();
  bool SendHeldFrame(std::uint32_t copy_index);
  // True when an error keeps the frame from being sent now.
  bool IsWithheld(PDU& frame, std::uint32_t copy_index);

  CErrorManagerBase* errors_;
  PDU header_;
  // The decisions made for the first copy, shared by all.
  bool delay_ = false;
  bool lose_ = false;
};

}  // namespace ipplayout
