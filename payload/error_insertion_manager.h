// SPDX-License-Identifier: MIT
// Decides which datagrams of a playout are lost, delayed or sent with a wrong checksum.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>

#include "ipplayout/ipplayout.h"
#include "payload/error_schedule.h"
#include "platform/mutex.h"
#include "platform/random.h"
#include "protocol/error_manager_base.h"
#include "protocol/pdu.h"

namespace ipplayout {

// Errors are scheduled by the settings, or requested one at a time. The pump thread announces each
// datagram, asks and counts; host threads raise requests and clear the statistics at any time, and
// configure and reset only while no run is in progress.
class CErrorInsertionManager final : public CErrorManagerBase {
 public:
  // Room for late frames, with some bytes of ours for each. A frame that finds none is not late.
  static constexpr std::size_t kMostHeldBytes = std::size_t{256} << 20;

  // Sequence errors are scheduled and accepted only while `protocol_mode` is IPPLAYOUT_RTP; it is
  // read at every datagram. Both outlive this object.
  CErrorInsertionManager(const std::uint32_t& protocol_mode, platform::Random& random);

  void Configure(ErrorInsertion settings) override;
  // The same in mid-run, by the pump thread between two datagrams: what was counted, requested and
  // held back stays.
  void Reschedule(const ErrorInsertion& settings);
  void Reset() override;
  void PrepareForPacket(std::uint64_t index) override;
  std::uint32_t IsPacketLoss(std::int32_t consume) override;
  std::uint32_t IsSequenceError(std::int32_t consume) override;
  std::uint32_t IsIpChecksumError(std::int32_t consume) override;
  std::uint32_t IsUdpChecksumError(std::int32_t consume) override;
  void CountLostPacket() override { lost_packets_.fetch_add(1, std::memory_order_relaxed); }
  void AddLostBytes(std::int32_t bytes) override {
    lost_bytes_.fetch_add(bytes, std::memory_order_relaxed);
  }
  void CountSequenceError() override { sequence_errors_.fetch_add(1, std::memory_order_relaxed); }
  void CountIpChecksumError() override {
    ip_checksum_errors_.fetch_add(1, std::memory_order_relaxed);
  }
  void CountUdpChecksumError() override {
    udp_checksum_errors_.fetch_add(1, std::memory_order_relaxed);
  }
  void SetJitter(double jitter) override { jitter_.store(jitter, std::memory_order_relaxed); }
  bool CopyStatistics(ErrorStatistics& out) const override;
  std::uint32_t IsEnabled() const override { return settings_.ErrInsertionEnable; }
  bool HoldFrame(PDU& frame, std::uint32_t copy_index) override;
  PDU* GetHeldFrame(std::uint32_t copy_index) override;
  void ReleaseHeldFrame(std::uint32_t copy_index) override;

  // Whether the datagram announced last was dropped: what the consuming query has answered. The
  // pump counts by this and not by a look beforehand, since a request may be raised in between.
  bool WasPacketLost() const { return packet_lost_; }

  // Frames of delayed datagrams that have not left yet. Any thread.
  std::size_t HeldFrames() const;

  void ClearStatistics();

  // One-shot requests: the next datagram that is built is damaged once. Any thread.
  void GeneratePacketLoss() { Raise(kLoss); }
  void GenerateSequenceError();
  // Behind so many later datagrams. Pump thread only, before it announces the datagram.
  void DelayNext(std::uint32_t distance) {
    requested_distance_ = distance;
    GenerateSequenceError();
  }
  void GenerateIPChecksumError() { Raise(kIpChecksum); }
  void GenerateUDPChecksumError() { Raise(kUdpChecksum); }

 private:
  enum Request : std::size_t { kLoss, kSequence, kIpChecksum, kUdpChecksum, kRequests };

  bool SequenceErrorsAllowed() const;
  void Raise(Request request) { requests_[request].store(1, std::memory_order_release); }
  bool Take(Request request, std::int32_t consume);
  void ClearDecisions();
  std::uint64_t HeldFrameKey(std::uint64_t index, std::uint32_t copy_index) const;

  const std::uint32_t& protocol_mode_;
  platform::Random& random_;
  ErrorInsertion settings_{};
  ErrorSchedule loss_;
  ErrorSchedule sequence_;
  ErrorSchedule checksum_;
  bool loss_scheduled_ = false;
  bool sequence_scheduled_ = false;
  bool checksum_scheduled_ = false;
  bool packet_lost_ = false;
  std::uint64_t current_index_ = 0;
  std::uint64_t due_index_ = 0;
  std::uint32_t requested_distance_ = 0;  // of requested delays; 0: drawn for each

  // Raised by host threads, taken by the pump thread: one atomic each is its own lock.
  std::array<std::atomic<std::uint32_t>, kRequests> requests_{};

  mutable platform::Mutex held_frames_mutex_;
  std::map<std::uint64_t, PDU> held_frames_ IPPLAYOUT_GUARDED_BY(held_frames_mutex_);
  std::size_t held_bytes_ IPPLAYOUT_GUARDED_BY(held_frames_mutex_) = 0;
  // Lets the usual datagram, with nothing held back, pass without the mutex. Pump thread only.
  bool any_held_ = false;
  PDU returned_frame_;

  std::atomic<std::uint64_t> lost_packets_{0};
  std::atomic<std::uint64_t> sequence_errors_{0};
  std::atomic<std::uint64_t> ip_checksum_errors_{0};
  std::atomic<std::uint64_t> udp_checksum_errors_{0};
  std::atomic<double> jitter_{0};
  std::atomic<std::int64_t> lost_bytes_{0};
};

}  // namespace ipplayout
