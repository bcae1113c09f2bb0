// SPDX-License-Identifier: MIT
#include "payload/error_insertion_manager.h"

#include "platform/random.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kMostRandomDistance = 100;

// The frame, its place in the map, and what the allocator adds to both.
std::size_t BytesToHold(const PDU& frame) {
  constexpr std::size_t kPlace = 128;
  return frame.Length() + kPlace;
}

}  // namespace

CErrorInsertionManager::CErrorInsertionManager(const std::uint32_t& protocol_mode,
                                               platform::Random& random)
    : protocol_mode_(protocol_mode), random_(random) {
  for (ErrorSchedule* schedule : {&loss_, &sequence_, &checksum_}) {
    schedule->UseRandom(random);
  }
}

// The settings take no lock, and a host may change this one during a run. The thread sanitizer
// cannot know that an old value is as good as a new one.
__attribute__((no_sanitize("thread"))) bool CErrorInsertionManager::SequenceErrorsAllowed() const {
  return __atomic_load_n(&protocol_mode_, __ATOMIC_RELAXED) == IPPLAYOUT_RTP;
}

void CErrorInsertionManager::Configure(ErrorInsertion settings) {
  ClearDecisions();
  ClearStatistics();
  current_index_ = 0;
  Reschedule(settings);
}

void CErrorInsertionManager::Reschedule(const ErrorInsertion& settings) {
  settings_ = settings;
  const bool randomize = settings.RandomizeErrors != 0;
  const auto count_if = [&settings](std::uint32_t kind_enabled, std::uint32_t count) {
    return settings.ErrInsertionEnable != 0 && kind_enabled != 0 ? count : 0;
  };
  loss_.Configure(count_if(settings.PacketLossEnabled, settings.NumPacketLoss),
                  settings.PacketLossRange, randomize);
  sequence_.Configure(count_if(settings.SequenceErrorEnabled, settings.NumSequenceError),
                      settings.SequenceErrorRange, randomize);
  checksum_.Configure(count_if(settings.ChecksumErrorEnabled, settings.NumChecksumError),
                      settings.ChecksumErrorRange, randomize);
}

void CErrorInsertionManager::Reset() {
  {
    const platform::MutexLock lock(held_frames_mutex_);
    held_frames_.clear();
    held_bytes_ = 0;
  }
  any_held_ = false;
  ClearDecisions();
  current_index_ = 0;
}

void CErrorInsertionManager::ClearDecisions() {
  loss_scheduled_ = false;
  sequence_scheduled_ = false;
  checksum_scheduled_ = false;
  packet_lost_ = false;
  for (auto& request : requests_) {
    request.store(0, std::memory_order_relaxed);
  }
}

void CErrorInsertionManager::PrepareForPacket(std::uint64_t index) {
  current_index_ = index;
  packet_lost_ = false;
  loss_scheduled_ = loss_.Hits(index);
  sequence_scheduled_ = SequenceErrorsAllowed() && sequence_.Hits(index);
  checksum_scheduled_ = checksum_.Hits(index);
}

bool CErrorInsertionManager::Take(Request request, std::int32_t consume) {
  if (requests_[request].load(std::memory_order_relaxed) == 0) {
    return false;
  }
  return consume != 1 || requests_[request].exchange(0, std::memory_order_acquire) != 0;
}

std::uint32_t CErrorInsertionManager::IsPacketLoss(std::int32_t consume) {
  const bool requested = Take(kLoss, consume);
  const bool lost = loss_scheduled_ || requested;
  if (consume == 1) {
    packet_lost_ = lost;
  }
  return lost ? 1 : 0;
}

std::uint32_t CErrorInsertionManager::IsSequenceError(std::int32_t consume) {
  const bool requested = Take(kSequence, consume);
  return sequence_scheduled_ || requested ? 1 : 0;
}

std::uint32_t CErrorInsertionManager::IsIpChecksumError(std::int32_t consume) {
  const bool requested = Take(kIpChecksum, consume);
  const bool scheduled =
      checksum_scheduled_ && settings_.ChecksumErrorType == IPPLAYOUT_CHECKSUM_IP;
  return scheduled || requested ? 1 : 0;
}

std::uint32_t CErrorInsertionManager::IsUdpChecksumError(std::int32_t consume) {
  const bool requested = Take(kUdpChecksum, consume);
  const bool scheduled =
      checksum_scheduled_ && settings_.ChecksumErrorType == IPPLAYOUT_CHECKSUM_UDP;
  return scheduled || requested ? 1 : 0;
}

void CErrorInsertionManager::GenerateSequenceError() {
  if (SequenceErrorsAllowed()) {
    Raise(kSequence);
  }
}

std::uint64_t CErrorInsertionManager::HeldFrameKey(std::uint64_t index,
                                                   std::uint32_t copy_index) const {
  return index << 32 | copy_index;
}

bool CErrorInsertionManager::HoldFrame(PDU& frame, std::uint32_t copy_index) {
  if (copy_index == 0) {
    if (sequence_scheduled_) {
      due_index_ = current_index_ + settings_.SequenceErrorDistance + 1;
    } else if (requested_distance_ != 0) {
      due_index_ = current_index_ + requested_distance_ + 1;
    } else {
      const std::uint32_t distance = random_.Next() * kMostRandomDistance / platform::kRandomMax;
      due_index_ = current_index_ + (distance <= 1 ? 2 : distance);
    }
  }
  const platform::MutexLock lock(held_frames_mutex_);
  const std::size_t bytes = BytesToHold(frame);
  if (bytes > kMostHeldBytes - held_bytes_) {
    return false;
  }
  if (held_frames_.try_emplace(HeldFrameKey(due_index_, copy_index), frame).second) {
    held_bytes_ += bytes;
  }
  any_held_ = true;
  return true;
}

PDU* CErrorInsertionManager::GetHeldFrame(std::uint32_t copy_index) {
  if (!any_held_) {
    return nullptr;
  }
  const platform::MutexLock lock(held_frames_mutex_);
  const auto found = held_frames_.find(HeldFrameKey(current_index_, copy_index));
  if (found == held_frames_.end()) {
    return nullptr;
  }
  returned_frame_ = found->second;
  return &returned_frame_;
}

void CErrorInsertionManager::ReleaseHeldFrame(std::uint32_t copy_index) {
  const platform::MutexLock lock(held_frames_mutex_);
  const auto found = held_frames_.find(HeldFrameKey(current_index_, copy_index));
  if (found != held_frames_.end()) {
    held_bytes_ -= BytesToHold(found->second);
    held_frames_.erase(found);
  }
  any_held_ = !held_frames_.empty();
}

std::size_t CErrorInsertionManager::HeldFrames() const {
  const platform::MutexLock lock(held_frames_mutex_);
  return held_frames_.size();
}

bool CErrorInsertionManager::CopyStatistics(ErrorStatistics& out) const {
  constexpr auto kOrder = std::memory_order_relaxed;
  out = {lost_packets_.load(kOrder),
         sequence_errors_.load(kOrder),
         ip_checksum_errors_.load(kOrder),
         udp_checksum_errors_.load(kOrder),
         jitter_.load(kOrder),
         lost_bytes_.load(kOrder)};
  return true;
}

void CErrorInsertionManager::ClearStatistics() {
  constexpr auto kOrder = std::memory_order_relaxed;
  lost_packets_.store(0, kOrder);
  sequence_errors_.store(0, kOrder);
  ip_checksum_errors_.store(0, kOrder);
  udp_checksum_errors_.store(0, kOrder);
  jitter_.store(0, kOrder);
  lost_bytes_.store(0, kOrder);
}

}  // namespace ipplayout
