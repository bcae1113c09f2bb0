// The bottom of the protocol chain: time-stamps finished frames, collects them in batches, hands
// the batches to the transmitter and puts them on the wire.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "driver/capture_driver.h"
#include "driver/send_queue.h"
#include "platform/deadline_waiter.h"
#include "platform/signal.h"
#include "transmit/ethernet_interface.h"
#include "transmit/frame_stamper.h"

namespace ipplayout {

// Hand-over of a batch between the data pump and the transmitter:
//
//   pump                                        transmitter
//   fills the fill queue up to N frames         WaitForQueue
//   waits for queue-free, resets it
//   swaps the queues, takes gap correction
//   and queue start advance
//   sets queue-ready, goes on filling           paces, sets the next correction and advance
//                                               TransmitQueue, sets queue-free
//   at the end: FlushLastQueue                  wakes, sees IsFinished, ends
//
// Send, FlushLastQueue and SignalQueueReady are the pump's, the operations from WaitForQueue to
// TransmitQueue the transmitter's; the rest belongs to the control thread while neither runs.
class PcapRtInterface final : public EthernetRTInterface {
 public:
  using AcceptFilter = bool (*)(const Packet& frame);

  PcapRtInterface(std::string device_name, std::uint32_t read_timeout_ms, CaptureDriver& driver);
  PcapRtInterface(const PcapRtInterface&) = delete;
  PcapRtInterface& operator=(const PcapRtInterface&) = delete;

  bool Send(PDU& frame) override;
  std::uint32_t GetHeaderLength() const override { return 0; }
  bool Open() override;
  bool FilterInclude() override;
  void Close() override;
  bool DiscardReceived(bool discard) override;
  void SetErrorInsertionManager(CErrorManagerBase* manager) override { errors_ = manager; }
  bool SetParametricManager(CParametricManagerBase* manager) override;
  const std::vector<std::uint8_t>& GetMacAddress() const override { return mac_address_; }
  std::shared_ptr<MacPacket> Receive(std::chrono::milliseconds timeout) override;
  bool SendShared(const std::shared_ptr<MacPacket>& frame) override;
  void SetAcceptFilter(AcceptFilter filter) { accept_filter_ = filter; }

  // 1 collects frames in batches, anything else sends each at once.
  void SetQueuedMode(int mode) { queued_ = mode == 1; }
  // Of all streams together, in bit/s.
  void SetBitRate(double bit_rate) { bit_rate_ = bit_rate; }
  void SetPacketsPerQueue(std::uint32_t frames) { packets_per_queue_ = frames; }
  std::uint32_t GetPacketsPerQueue() const { return packets_per_queue_; }
  // Nominal frame length in bytes.
  void SetFrameSize(std::uint32_t bytes) { frame_size_ = bytes; }
  // False after a FilterInclude that could not get memory for the queues.
  bool HasQueues() const { return fill_queue_ != nullptr && send_queue_ != nullptr; }
  // The clock and the waits of this interface; tests put their own in its place.
  platform::DeadlineWaiter& Waiter() { return *waiter_; }
  void SetWaiter(platform::DeadlineWaiter* waiter) { waiter_ = waiter; }

  // Seconds per frame at the bit rate.
  double GetPacketTime() const { return packet_time_; }
  void WaitForQueue();
  // A batch has been handed over and not been sent. After WaitForQueue.
  bool HasBatch() const { return send_queue_->Used() != 0; }
  bool IsFinished() const { return finished_.load(); }
  double GetJitterSum() const { return batch_jitter_sum_.load(); }
  void ClearJitterSum() { batch_jitter_sum_.store(0); }
  // Seconds by which the gap of a coming batch is shortened.
  void SetGapCorrection(double seconds) { gap_correction_.store(seconds); }
  // Seconds from the last frame of a batch to the first of the next; negative counts as 0.
  void SetQueueStartAdvance(double seconds);
  // 0 when the adapter took only part of the batch, else 1.
  int TransmitQueue();

  void SignalQueueReady() { queue_ready_.Set(); }
  // Transmits the partly filled batch on the caller's thread and ends the run.
  void FlushLastQueue();

 private:
  bool QueueFrame(const PDU& frame);
  bool HandOver();
  bool TransmitWhole(const SendQueue& queue);
  bool SetEmptyFilter();

  const std::string device_name_;
  const std::uint32_t read_timeout_ms_;
  CaptureDriver& driver_;
  std::unique_ptr<CaptureHandle> handle_;
  std::uint64_t receive_count_ = 0;
  AcceptFilter accept_filter_ = nullptr;
  std::vector<std::uint8_t> mac_address_;

  bool queued_ = false;
  std::uint32_t packets_per_queue_ = 10;
  std::uint32_t frame_size_ = 1370;
  double bit_rate_ = 0;
  double packet_time_ = 0;
  CErrorManagerBase* errors_ = nullptr;
  CParametricManagerBase* parameters_ = nullptr;
  platform::DeadlineWaiter own_waiter_;
  platform::DeadlineWaiter* waiter_ = &own_waiter_;

  // Pump.
  FrameStamper stamper_;
  std::uint32_t queue_count_ = 0;
  std::unique_ptr<SendQueue> fill_queue_;

  // Pump and transmitter in turn, ordered by the two signals; atomic where one side may look
  // outside its turn.
  std::unique_ptr<SendQueue> send_queue_;
  std::atomic<double> gap_correction_{0};
  std::atomic<double> queue_start_advance_{0};
  std::atomic<double> batch_jitter_sum_{0};
  std::atomic<bool> finished_{false};
  std::atomic<bool> failed_{false};

  alignas(64) platform::Signal queue_ready_{false};
  alignas(64) platform::Signal queue_free_{true};
};

}  // namespace ipplayout
