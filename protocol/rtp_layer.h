// SPDX-License-Identifier: MIT
// RTP fixed header (RFC 3550 section 5.1), without CSRC list and extension.
//
//   offset  size
//        0     1  V (2 bits), P = X = CC = 0
//        1     1  M, PT
//        2     2  sequence number
//        4     4  timestamp
//        8     4  SSRC
#pragma once

#include <cstdint>

#include "protocol/layer.h"
#include "protocol/pdu.h"
#include "protocol/sw_clock.h"

namespace ipplayout {

struct RtpSettings {
  std::uint32_t version = 0;        // its low two bits are sent
  std::uint32_t payload_type = 0;   // low 8 bits sent, so that 128 and more set the marker too
  std::uint8_t extension_flag = 0;  // 1 sends 0x80 as first byte, whatever the version
  std::uint32_t initial_sequence_number = 0;
  std::uint32_t ssrc = 0;
  CSwClock* clock = nullptr;  // null sends time stamp 0
};

class RtpDataFlowOut final : public Layer {
 public:
  static constexpr std::uint32_t kHeaderLength = 12;

  RtpDataFlowOut(const RtpSettings& settings, Sender* next);

  bool Send(PDU& frame) override;

 private:
  std::uint32_t NextTimestamp();

  RtpSettings settings_;
  std::uint32_t sequence_counter_;
  PDU header_;
};

}  // namespace ipplayout
