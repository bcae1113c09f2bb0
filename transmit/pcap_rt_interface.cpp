// SPDX-License-Identifier: MIT
#include "transmit/pcap_rt_interface.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "ipplayout/limits.h"
#include "platform/clock.h"
#include "protocol/pdu.h"

namespace ipplayout {
namespace {

constexpr int kSnapshotLength = 65536;
constexpr int kDriverBufferBytes = 10 * 1024 * 1024;
// Handed over at a bit rate that cannot be reached. With fewer the two threads fall asleep in turn:
// these take the transmitter a quarter of a millisecond, in which a sleeping pump is awake again.
constexpr std::uint32_t kFramesAtFullSpeed = 480;
constexpr Seconds kLongestPacketTime{1e9};  // keeps the arithmetic on times finite

std::uint64_t Nanoseconds(const CapturedFrame& frame) {
  return (static_cast<std::uint64_t>(frame.seconds) * 1000000 +
          static_cast<std::uint64_t>(frame.microseconds)) *
         1000;
}

void ReportShortTransmission(std::size_t sent) {
  std::printf("An error occurred sending the packets:  Only %d bytes were sent\n",
              static_cast<int>(sent));
}

}  // namespace

PcapRtInterface::PcapRtInterface(std::string device_name, std::uint32_t read_timeout_ms,
                                 CaptureDriver& driver)
    : device_name_(std::move(device_name)),
      read_timeout_ms_(read_timeout_ms),
      driver_(driver),
      mac_address_(6) {}

bool PcapRtInterface::Open() {
  OpenOptions options;
  options.snapshot_length = kSnapshotLength;
  options.promiscuous = true;
  options.read_timeout = std::chrono::milliseconds(read_timeout_ms_);
  options.buffer_bytes = kDriverBufferBytes;
  options.capture_later = true;
  handle_ = driver_.Open(device_name_, options);
  if (handle_ != nullptr && handle_->DataLink() != CaptureHandle::kEthernetDataLink) {
    handle_.reset();
  }
  return handle_ != nullptr;
}

bool PcapRtInterface::SetParametricManager(CParametricManagerBase* manager) {
  parameters_ = manager;
  return true;
}

bool PcapRtInterface::FilterInclude() {
  failed_.store(false);
  if (queued_) {
    packet_time_ = std::min(Seconds(frame_size_ * 8.0 / bit_rate_), kLongestPacketTime);
    stamper_.Begin(packet_time_, parameters_);
    gap_correction_.store(Seconds(0));
    queue_start_advance_.store(packet_time_);
    queue_count_ = 0;
    dropped_batches_ = 0;
    frames_taken_.store(0);
    frames_sent_.store(0);
    finished_.store(false);
    const std::size_t capacity =
        (std::size_t{frame_size_} + IPPLAYOUT_QUEUE_BYTES_PER_FRAME) * packets_per_queue_;
    hand_over_.Allocate(MostWaiting(), capacity);
  }
  if (handle_ == nullptr) {
    return false;
  }
  if (queued_ && packets_per_queue_ > 1) {
    handle_->ExpectBatches();
  }
  return SetEmptyFilter();
}

// An empty filter accepts every frame.
bool PcapRtInterface::SetEmptyFilter() {
  const FilterResult result = handle_->SetFilter("", 0);
  switch (result.stage) {
    case FilterResult::Stage::kCompile:
      std::printf("PcapInterface::FilterInclude: pcap_compile failed with result %d\n",
                  result.code);
      return false;
    case FilterResult::Stage::kSet:
      std::printf("PcapInterface::FilterInclude: pcap_setfilter failed with result %d\n",
                  result.code);
      return false;
    default:
      return true;
  }
}

bool PcapRtInterface::Send(PDU& frame) {
  if (failed_.load(std::memory_order_relaxed)) {
    return false;
  }
  if (!queued_) {
    return handle_ != nullptr && handle_->SendFrame({frame.Data(), frame.Length()});
  }
  return QueueFrame(frame) && (queue_count_ != packets_per_queue_ || HandOver());
}

bool PcapRtInterface::QueueFrame(const PDU& frame) {
  const FrameHeader header = stamper_.Stamp(frame.Length(), queue_count_ == 0);
  ++queue_count_;
  if (errors_ != nullptr) {
    errors_->SetJitter(stamper_.Jitter().count());
  }
  if (!hand_over_.Filling().Append(header, frame.Data())) {
    std::printf("Warning: packet buffer too small, not all the packets will be sent.\n");
    return false;
  }
  frames_taken_.store(frames_taken_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  return true;
}

bool PcapRtInterface::HandOver() {
  queue_count_ = 0;
  hand_over_.WaitForRoom(MostAhead());
  // Taken before the transmitter can go on from this batch and set the next ones.
  const Seconds gap = std::max(packet_time_ - gap_correction_.load(), Seconds(0));
  const Seconds start_advance = queue_start_advance_.load();
  if (hand_over_.IsAbandoned()) {
    // Too late for it to be transmitted. A failure is the next frame's result.
    ++dropped_batches_;
    hand_over_.Filling().Clear();
  } else {
    hand_over_.HandOver(stamper_.JitterSum());
  }
  stamper_.BeginBatch(gap, start_advance);
  return true;
}

// Each batch whose gap is 0 makes up for the time of a whole one. As many as it takes to be on the
// grid again may be ahead, and no more, since all that are ahead leave without gaps: the correction
// spreads what is missing over the gaps of one batch.
std::size_t PcapRtInterface::MostAhead() const {
  const Seconds correction = gap_correction_.load();
  if (correction < packet_time_) {
    return 1;
  }
  const double frames = packets_per_queue_;
  const double batches = correction * (frames - 1) / (frames * packet_time_);
  return static_cast<std::size_t>(std::clamp(batches, 1.0, static_cast<double>(MostWaiting())));
}

bool PcapRtInterface::SpacesFrames() const {
  const bool bursts = parameters_ != nullptr && parameters_->IsBurstMode() != 0;
  return !bursts && packets_per_queue_ > 1;
}

// Single frames are only sent where there is time, and bursts are long: one is enough of both.
std::size_t PcapRtInterface::MostWaiting() const {
  return SpacesFrames() ? std::max(kFramesAtFullSpeed / packets_per_queue_, 1U) : 1;
}

void PcapRtInterface::SetQueueStartAdvance(Seconds by) {
  queue_start_advance_.store(std::max(by, Seconds(0)));
}

void PcapRtInterface::PassBatch() {
  if (SpacesFrames()) {
    hand_over_.Pass();
  }
}

int PcapRtInterface::TransmitQueue() {
  if (!queued_) {
    return 1;
  }
  if (!hand_over_.HasBatch()) {
    return 1;
  }
  if (!IsFinished() && handle_ != nullptr && !TransmitWhole(*hand_over_.Front().frames)) {
    // Frames that a stop leaves behind are no failure of the run.
    failed_.store(!waiter_->ShouldGiveUp());
    finished_.store(true);
    hand_over_.Abandon();
    return 0;
  }
  hand_over_.Release();
  return 1;
}

bool PcapRtInterface::TransmitWhole(const SendQueue& queue) {
  const std::size_t sent = handle_->TransmitQueue(queue, true, *waiter_);
  frames_sent_.fetch_add(queue.FramesWithin(sent));
  if (sent == queue.Used()) {
    return true;
  }
  ReportShortTransmission(sent);
  return false;
}

std::uint64_t PcapRtInterface::FramesNotSent() const {
  const std::uint64_t sent = frames_sent_.load();  // first: it follows the other one
  return frames_taken_.load() - sent;
}

void PcapRtInterface::FlushLastQueue() {
  hand_over_.WaitUntilEmpty();
  finished_.store(true);
  // Those behind a batch that failed or was given up are lost with it, and reported like it.
  for (std::uint64_t lost = hand_over_.InHand() + dropped_batches_; lost > 1; --lost) {
    ReportShortTransmission(0);
  }
  SendQueue& rest = hand_over_.Filling();
  if (handle_ != nullptr) {
    TransmitWhole(rest);
  }
  rest.Clear();
  queue_count_ = 0;
  SignalQueueReady();
}

void PcapRtInterface::Close() {
  handle_.reset();
  hand_over_.Clear();
}

bool PcapRtInterface::DiscardReceived(bool discard) {
  if (!discard) {
    return true;
  }
  while (handle_ != nullptr && handle_->NextFrame()) {
  }
  return false;
}

std::shared_ptr<MacPacket> PcapRtInterface::Receive(std::chrono::milliseconds timeout) {
  const auto deadline = platform::MonotonicNow() + timeout;
  do {
    const std::optional<CapturedFrame> frame =
        handle_ == nullptr ? std::nullopt : handle_->NextFrame();
    if (frame) {
      auto packet = std::make_shared<MacPacket>(receive_count_++, frame->bytes.data(),
                                                static_cast<std::uint32_t>(frame->bytes.size()),
                                                Nanoseconds(*frame));
      if (accept_filter_ == nullptr || accept_filter_(*packet)) {
        return packet;
      }
    } else if (accept_filter_ == nullptr) {
      return nullptr;
    }
  } while (platform::MonotonicNow() < deadline);
  return nullptr;
}

bool PcapRtInterface::SendShared(const std::shared_ptr<MacPacket>& frame) {
  return handle_ != nullptr && frame != nullptr && handle_->SendFrame(frame->Bytes());
}

}  // namespace ipplayout
