// SPDX-License-Identifier: MIT
// What the layers ask about the deliberate errors of the datagram they are building.
#pragma once

#include <cstdint>

#include "ipplayout/ipplayout.h"

namespace ipplayout {

class PDU;

// Error statistics in the order in which they end the playout statistics.
struct ErrorStatistics {
  std::uint64_t lost_packets = 0;
  std::uint64_t sequence_errors = 0;
  std::uint64_t ip_checksum_errors = 0;
  std::uint64_t udp_checksum_errors = 0;
  double jitter = 0;
  std::int64_t lost_bytes = 0;
};

// The queries take a consume flag: 1 uses up a pending one-shot request, 0 only looks. Their result
// is 1 when the datagram announced last is to be damaged in that way.
class CErrorManagerBase {
 public:
  virtual ~CErrorManagerBase() = default;
  virtual void Configure(ErrorInsertion settings) = 0;
  virtual void Reset() = 0;
  virtual void PrepareForPacket(std::uint64_t index) = 0;
  virtual std::uint32_t IsPacketLoss(std::int32_t consume) = 0;
  virtual std::uint32_t IsSequenceError(std::int32_t consume) = 0;
  virtual std::uint32_t IsIpChecksumError(std::int32_t consume) = 0;
  virtual std::uint32_t IsUdpChecksumError(std::int32_t consume) = 0;
  virtual void CountLostPacket() = 0;
  virtual void AddLostBytes(std::int32_t bytes) = 0;
  virtual void CountSequenceError() = 0;
  virtual void CountIpChecksumError() = 0;
  virtual void CountUdpChecksumError() = 0;
  virtual void SetJitter(double jitter) = 0;
  virtual bool CopyStatistics(ErrorStatistics& out) const = 0;
  virtual std::uint32_t IsEnabled() const = 0;
  // Keeps a copy of `frame`, to be sent before a later datagram. False where there is no room, so
  // that it has to leave now.
  virtual bool HoldFrame(PDU& frame, std::uint32_t copy_index) = 0;
  // The frame that is due before the current datagram, valid until the next call; or null.
  virtual PDU* GetHeldFrame(std::uint32_t copy_index) = 0;
  virtual void ReleaseHeldFrame(std::uint32_t copy_index) = 0;
};

}  // namespace ipplayout
