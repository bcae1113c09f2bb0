// SPDX-License-Identifier: MIT
// Finds the transport stream packets in the payloads of a stream of datagrams: 188 bytes each, or
// 192 with a 4-byte time stamp in front, or 204 with 16 check bytes behind; whole in their datagram
// or cut at its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "host/measure/figures/ts_packet.h"

namespace ipplay::measure {

class TsFramer {
 public:
  // ETSI TR 101 290, 5.2.1: five sync bytes in a row gain synchronisation, two wrong ones lose it.
  static constexpr std::size_t kPacketsToSync = 5;
  static constexpr std::size_t kErrorsToLoseSync = 2;
  // A stream without synchronisation in its first bytes is taken for something else.
  static constexpr std::uint64_t kPatience = std::uint64_t{64} * 1024;

  // Calls on_packet(TsPacket, offset) for every packet that `payload` completes. The offset is the
  // packet's place relative to the payload's first byte, negative when it began in an earlier one.
  // A packet with a wrong sync byte is counted and handed on with it, for whatever it is.
  template <typename OnPacket>
  void Push(std::span<const std::uint8_t> payload, OnPacket&& on_packet);

  // What comes next does not go on from what came before.
  void DropPart() {
    if (IsSynced()) {
      kept_.clear();
    }
  }
  // Gives its memory back; no more bytes follow.
  void GiveUp() { kept_ = {}; }

  bool IsSynced() const { return stride_ != 0; }
  bool WasEverSynced() const { return ever_synced_; }
  // Nothing more is expected to be found.
  bool HasGivenUp() const { return !ever_synced_ && searched_ > kPatience; }
  // 188, 192 or 204; 0 while not synchronised.
  std::size_t PacketLength() const { return stride_; }
  std::uint64_t SyncLosses() const { return sync_losses_; }
  std::uint64_t SyncByteErrors() const { return sync_byte_errors_; }

 private:
  // Takes as many whole packets as there are from `bytes`, which start on a packet and stand at
  // `offset`. Returns how many bytes were used.
  template <typename OnPacket>
  std::size_t TakePackets(std::span<const std::uint8_t> bytes, std::ptrdiff_t offset,
                          OnPacket&& on_packet);
  void CheckSync(std::uint8_t byte);
  // Looks for packets in what has been kept, and drops what can no longer begin one.
  bool FindSync();

  std::size_t stride_ = 0;
  std::size_t sync_at_ = 0;  // place of the sync byte in a packet: 4 with a time stamp, else 0
  std::size_t wrong_in_a_row_ = 0;
  std::vector<std::uint8_t> kept_;  // the begin of a packet; before synchronisation, all bytes
  std::uint64_t searched_ = 0;
  bool ever_synced_ = false;
  std::uint64_t sync_losses_ = 0;
  std::uint64_t sync_byte_errors_ = 0;
};

template <typename OnPacket>
std::size_t TsFramer::TakePackets(std::span<const std::uint8_t> bytes, std::ptrdiff_t offset,
                                  OnPacket&& on_packet) {
  std::size_t at = 0;
  while (IsSynced() && bytes.size() - at >= stride_) {
    const std::size_t sync = at + sync_at_;
    CheckSync(bytes[sync]);
    if (!IsSynced()) {
      break;  // it is no packet, perhaps, and is searched again
    }
    on_packet(TsPacket(bytes.subspan(sync).first<kTsPacketLength>()),
              offset + static_cast<std::ptrdiff_t>(sync));
    at += stride_;
  }
  return at;
}

template <typename OnPacket>
void TsFramer::Push(std::span<const std::uint8_t> payload, OnPacket&& on_packet) {
  if (HasGivenUp()) {
    return;
  }
  // Almost always nothing is kept, and the packets are taken where they lie.
  std::size_t used = 0;
  if (IsSynced() && kept_.empty()) {
    used = TakePackets(payload, 0, on_packet);
    if (used == payload.size()) {
      return;
    }
  }
  std::ptrdiff_t offset =
      static_cast<std::ptrdiff_t>(used) - static_cast<std::ptrdiff_t>(kept_.size());
  kept_.insert(kept_.end(), payload.begin() + static_cast<std::ptrdiff_t>(used), payload.end());
  const std::size_t before = kept_.size();
  if (!IsSynced()) {
    if (!FindSync()) {
      return;
    }
    offset += static_cast<std::ptrdiff_t>(before - kept_.size());
  }
  const std::size_t taken = TakePackets(kept_, offset, on_packet);
  kept_.erase(kept_.begin(), kept_.begin() + static_cast<std::ptrdiff_t>(taken));
}

}  // namespace ipplay::measure
