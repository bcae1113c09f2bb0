// SPDX-License-Identifier: MIT
// What every protocol layer has: the stage below it, where its header goes, and the replication
// manager from which replicated copies take their field values.
#pragma once

#include <cstdint>

#include "protocol/replication_manager.h"
#include "protocol/sender.h"

namespace ipplayout {

// Pointers are non-owning; the lifecycle owns and deletes all layers.
class Layer : public Sender {
 public:
  Layer(Sender* next, std::uint32_t own_header_length)
      : next_(next), own_header_length_(own_header_length), header_offset_(LengthBelow()) {}

  void SetReplicationManager(const CReplicationMgrBase* manager) { replication_ = manager; }

  std::uint32_t GetHeaderLength() const final { return own_header_length_ + LengthBelow(); }

 protected:
  bool IsReplicated() const { return replication_ != nullptr && replication_->IsEnabled() != 0; }
  const CReplicationMgrBase& Replication() const { return *replication_; }

  // Offset of this layer's header in every frame: the lengths of all headers below.
  std::uint32_t HeaderOffset() const { return header_offset_; }
  bool SendNext(PDU& frame) { return next_->Send(frame); }

 private:
  std::uint32_t LengthBelow() const { return next_ == nullptr ? 0 : next_->GetHeaderLength(); }

  Sender* next_;
  const CReplicationMgrBase* replication_ = nullptr;
  std::uint32_t own_header_length_;
  std::uint32_t header_offset_;
};

}  // namespace ipplayout
