// SPDX-License-Identifier: MIT
// The FEC datagrams of one playout on their way to chains of headers of their own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "payload/fec_encoder.h"
#include "protocol/pdu.h"

namespace ipplayout {

class CErrorInsertionManager;
class CReplicationMgrBase;
class Sender;

// One of the two FEC streams. Nothing is owned.
struct FecPort {
  Sender* top = nullptr;
  CReplicationMgrBase* replication = nullptr;
  CErrorInsertionManager* errors = nullptr;
};

// Belongs to the builder's thread.
class FecFeed {
 public:
  enum Kind : std::size_t { kColumn, kRow, kKinds };

  // `header_room` of the frames, up to the end of the RTP header.
  FecFeed(const FecMatrix& matrix, std::uint32_t header_room, std::size_t longest_payload,
          const std::array<FecPort, kKinds>& ports);

  // A frame of the media stream has been built, whether it leaves or not.
  void AddMedia(const PDU& frame);

  // The stream has ended: one more FEC datagram may be due. False when none is.
  bool AtEnd();

  // The next FEC datagram that is to follow it: false when there is none left. Then Frame and Port
  // are of that one.
  bool Next();
  PDU& Frame() { return frame_; }
  Kind Which() const { return which_; }
  const FecPort& Port() const { return ports_[which_]; }
  // Of its stream, from 0.
  std::uint64_t Index() const { return counts_[which_] - 1; }

 private:
  FecEncoder encoder_;
  const std::uint32_t header_room_;
  const std::array<FecPort, kKinds> ports_;
  std::array<std::span<const std::uint8_t>, kKinds> due_{};
  std::array<std::uint64_t, kKinds> counts_{};
  Kind which_ = kColumn;
  PDU frame_;
};

}  // namespace ipplayout
