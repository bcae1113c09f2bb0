// SPDX-License-Identifier: MIT
#include "protocol/rtp_layer.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kVersionOffset = 0;
constexpr std::uint32_t kPayloadTypeOffset = 1;
constexpr std::uint32_t kSequenceNumberOffset = 2;
constexpr std::uint32_t kTimestampOffset = 4;
constexpr std::uint32_t kSsrcOffset = 8;
constexpr std::uint8_t kExtendedFirstByte = 0x80;

}  // namespace

RtpDataFlowOut::RtpDataFlowOut(const RtpSettings& settings, Sender* next)
    : Layer(next, kHeaderLength),
      settings_(settings),
      sequence_counter_(settings.initial_sequence_number),
      header_(kHeaderLength) {
  header_.WriteByte(settings.extension_flag == 1 ? kExtendedFirstByte
                                                 : static_cast<std::uint8_t>(settings.version << 6),
                    kVersionOffset);
  header_.WriteByte(static_cast<std::uint8_t>(settings.payload_type), kPayloadTypeOffset);
  header_.WriteU32(settings.ssrc, kSsrcOffset);
}

bool RtpDataFlowOut::Send(PDU& frame) {
  const bool replicated = IsReplicated();
  if (replicated) {
    RtpFields fields;
    Replication().GetRtpFields(fields);
    header_.WriteByte(static_cast<std::uint8_t>(fields.payload_type), kPayloadTypeOffset);
    header_.WriteU32(fields.ssrc, kSsrcOffset);
    header_.WriteU16(static_cast<std::uint16_t>(fields.sequence_number), kSequenceNumberOffset);
  } else {
    header_.WriteU16(static_cast<std::uint16_t>(sequence_counter_), kSequenceNumberOffset);
  }
  header_.WriteU32(NextTimestamp(), kTimestampOffset);
  frame.WritePdu(header_, HeaderOffset());
  if (!SendNext(frame)) {
    return false;
  }
  if (!replicated) {
    ++sequence_counter_;
  }
  return true;
}

std::uint32_t RtpDataFlowOut::NextTimestamp() {
  std::uint32_t timestamp = 0;
  return settings_.clock != nullptr && settings_.clock->NextTimestamp(&timestamp) ? timestamp : 0;
}

}  // namespace ipplayout
