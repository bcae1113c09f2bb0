#include "transmit/pcap_rt_interface.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/clock.h"
#include "protocol/pdu.h"

namespace ipplayout {
namespace {

constexpr int kSnapshotLength = 65536;
constexpr int kDriverBufferBytes = 10 * 1024 * 1024;
constexpr double kLongestPacketTime = 1e9;        // seconds: keeps the arithmetic on times finite
constexpr std::uint32_t kQueueRoomPerFrame = 24;  // for the frame's header, on top of its bytes

std::uint64_t Nanoseconds(const CapturedFrame& frame) {
  return (static_cast<std::uint64_t>(frame.seconds) * 1000000 +
          static_cast<std::uint64_t>(frame.microseconds)) *
         1000;
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
    packet_time_ = std::min(frame_size_ * 8.0 / bit_rate_, kLongestPacketTime);
    stamper_.Begin(packet_time_, parameters_);
    gap_correction_.store(0);
    queue_start_advance_.store(packet_time_);
    batch_jitter_sum_.store(0);
    queue_count_ = 0;
    finished_.store(false);
    queue_ready_.Reset();
    queue_free_.Set();
    const std::size_t capacity =
        (std::size_t{frame_size_} + kQueueRoomPerFrame) * packets_per_queue_;
    fill_queue_ = SendQueue::Allocate(capacity);
    send_queue_ = SendQueue::Allocate(capacity);
  }
  return handle_ != nullptr && SetEmptyFilter();
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
    errors_->SetJitter(stamper_.JitterEstimate());
  }
  if (!fill_queue_->Append(header, frame.Data())) {
    std::printf("Warning: packet buffer too small, not all the packets will be sent.\n");
    return false;
  }
  return true;
}

bool PcapRtInterface::HandOver() {
  queue_count_ = 0;
  queue_free_.Wait();
  queue_free_.Reset();
  if (failed_.load()) {
    queue_free_.Set();
    return false;
  }
  std::swap(fill_queue_, send_queue_);
  batch_jitter_sum_.store(stamper_.JitterSum());
  stamper_.BeginBatch(std::max(packet_time_ - gap_correction_.load(), 0.0),
                      queue_start_advance_.load());
  queue_ready_.Set();
  return true;
}

void PcapRtInterface::WaitForQueue() {
  queue_ready_.Wait();
  queue_ready_.Reset();
}

void PcapRtInterface::SetQueueStartAdvance(double seconds) {
  queue_start_advance_.store(std::max(seconds, 0.0));
}

int PcapRtInterface::TransmitQueue() {
  if (!queued_) {
    return 1;
  }
  int result = 1;
  if (!IsFinished() && handle_ != nullptr) {
    if (TransmitWhole(*send_queue_)) {
      send_queue_->Clear();
    } else {
      failed_.store(true);
      finished_.store(true);
      result = 0;
    }
  }
  queue_free_.Set();
  return result;
}

bool PcapRtInterface::TransmitWhole(const SendQueue& queue) {
  const std::size_t sent = handle_->TransmitQueue(queue, true, *waiter_);
  if (sent == queue.Used()) {
    return true;
  }
  std::printf("An error occurred sending the packets:  Only %d bytes were sent\n",
              static_cast<int>(sent));
  return false;
}

void PcapRtInterface::FlushLastQueue() {
  queue_free_.Wait();
  queue_free_.Reset();
  finished_.store(true);
  if (handle_ != nullptr) {
    TransmitWhole(*fill_queue_);
  }
  fill_queue_->Clear();
  queue_ready_.Set();
  queue_free_.Set();
}

void PcapRtInterface::Close() {
  handle_.reset();
  fill_queue_.reset();
  send_queue_.reset();
  queue_ready_.Reset();
  queue_free_.Reset();
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
