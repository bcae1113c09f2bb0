// SPDX-License-Identifier: MIT
// Where the data pump takes datagram payloads from.
#pragma once

#include <cstdint>

namespace ipplayout {

class PDU;

class PayloadSource {
 public:
  // Fills `pdu` from `offset` to its length with the next bytes of the stream, waiting for them;
  // shortens it when the stream ends within. False when there is nothing to read: no room behind
  // `offset`, or the end of the stream. `reserved` is ignored.
  virtual bool ReadPayload(PDU& pdu, std::uint32_t offset, std::uint32_t reserved) = 0;
  // Size in bytes of one transport stream packet, 0 for a stream without packets.
  virtual std::uint32_t GetPacketSize() const = 0;
  virtual ~PayloadSource() = default;
};

}  // namespace ipplayout
