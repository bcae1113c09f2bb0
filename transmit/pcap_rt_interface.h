// SPDX-License-Identifier: MIT
// The bottom of the protocol chain: time-stamps finished frames, collects them in batches, hands
// the batches to the transmitter and puts them on the wire.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "driver/capture_driver.h"
#include "platform/deadline_waiter.h"
#include "transmit/batch_hand_over.h"
#include "transmit/ethernet_interface.h"
#include "transmit/frame_stamper.h"
#include "transmit/seconds.h"

namespace ipplayout {

// Hand-over of a batch between the data pump and the transmitter:
//
//   pump                                        transmitter
//   fills a batch of N frames                   WaitForQueue
//   waits for room, takes gap correction
//   and queue start advance, hands over,
//   goes on filling the next                    paces, sets the next correction and advance
//                                               TransmitQueue, releases the batch
//   at the end: FlushLastQueue                  wakes, sees IsFinished, ends
//
// One batch is in transit while the next is filled, so that each takes the correction that followed
// from the one before. Only where frames are so late that the next gap is 0 in any case, further
// batches may follow, as many as are to leave without gaps.
//
// When a transmission fails, or a stop gives up the rest, the ring is abandoned: the pump waits for
// nothing any more, and drops each further batch when it is full.
//
// Each section of the class belongs to one thread, the first to the control thread while neither
// worker runs.
class PcapRtInterface final : public EthernetRTInterface {
 public:
  using AcceptFilter = bool (*)(const Packet& frame);

  PcapRtInterface(std::string device_name, std::uint32_t read_timeout_ms, CaptureDriver& driver);
  PcapRtInterface(const PcapRtInterface&) = delete;
  PcapRtInterface& operator=(const PcapRtInterface&) = delete;

  // ---- Control, before a run and after it ----

  bool Open() override;
  bool FilterInclude() override;
  void Close() override;
  void SetErrorInsertionManager(CErrorManagerBase* manager) override { errors_ = manager; }
  bool SetParametricManager(CParametricManagerBase* manager) override;
  const std::vector<std::uint8_t>& GetMacAddress() const override { return mac_address_; }
  // 1 collects frames in batches, anything else sends each at once.
  void SetQueuedMode(int mode) { queued_ = mode == 1; }
  // Of all streams together, in bit/s.
  void SetBitRate(double bit_rate) { bit_rate_ = bit_rate; }
  void SetPacketsPerQueue(std::uint32_t frames) { packets_per_queue_ = frames; }
  std::uint32_t GetPacketsPerQueue() const { return packets_per_queue_; }
  // Nominal frame length in bytes.
  void SetFrameSize(std::uint32_t bytes) { frame_size_ = bytes; }
  // False after a FilterInclude that could not get memory for the queues.
  bool HasQueues() const { return hand_over_.IsAllocated(); }
  // The clock and the waits of this interface; tests put their own in its place.
  platform::DeadlineWaiter& Waiter() { return *waiter_; }
  void SetWaiter(platform::DeadlineWaiter* waiter) { waiter_ = waiter; }
  // Frames that Send has taken in a batch since FilterInclude and the adapter has not. Any time;
  // during a run they include what is on its way.
  std::uint64_t FramesNotSent() const;

  // ---- Pump ----

  bool Send(PDU& frame) override;
  std::uint32_t GetHeaderLength() const override { return 0; }
  // A batch that is complete is handed over at once: Send does not wait for the transmitter.
  bool HasRoom() const { return hand_over_.HasRoom(MostAhead()); }
  // Wakes the transmitter from WaitForQueue. Any thread.
  void SignalQueueReady() { hand_over_.Wake(); }
  // Transmits the partly filled batch on the caller's thread and ends the run.
  void FlushLastQueue();

  // ---- Transmitter ----

  // Of a frame at the bit rate.
  Seconds GetPacketTime() const { return packet_time_; }
  // Returns with a batch in hand, or without one after SignalQueueReady.
  void WaitForQueue() { hand_over_.Wait(); }
  bool HasBatch() const { return hand_over_.HasBatch(); }
  bool IsFinished() const { return finished_.load(); }
  // Of the batch in hand.
  Seconds GetJitterSum() { return hand_over_.Front().jitter_sum; }
  void ClearJitterSum() { hand_over_.Front().jitter_sum = Seconds(0); }
  // By how much the gap of a coming batch is shortened.
  void SetGapCorrection(Seconds by) { gap_correction_.store(by); }
  // Time from the last frame of a batch to the first of the next; negative counts as 0.
  void SetQueueStartAdvance(Seconds by);
  // The batch in hand has its corrections set. Where frames of a batch are spaced the pump may hand
  // the next one over from now on, with the same corrections as after this one: a pump that wakes
  // late then loses time of this batch, and not of the gap in between.
  void PassBatch();
  // Transmits the batch in hand, if there is one. 0 when the adapter took only part of it, which
  // ends the run: as failed, or where the waiter has given up as it is. Else 1.
  int TransmitQueue();

  // ---- Receiving, and frames of others: no playout does either ----

  bool DiscardReceived(bool discard) override;
  std::shared_ptr<MacPacket> Receive(std::chrono::milliseconds timeout) override;
  bool SendShared(const std::shared_ptr<MacPacket>& frame) override;
  void SetAcceptFilter(AcceptFilter filter) { accept_filter_ = filter; }

 private:
  bool QueueFrame(const PDU& frame);
  bool HandOver();
  std::size_t MostAhead() const;
  bool SpacesFrames() const;
  std::size_t MostWaiting() const;
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
  Seconds packet_time_{0};
  CErrorManagerBase* errors_ = nullptr;
  CParametricManagerBase* parameters_ = nullptr;
  platform::DeadlineWaiter own_waiter_;
  platform::DeadlineWaiter* waiter_ = &own_waiter_;

  // Pump.
  FrameStamper stamper_;
  std::uint32_t queue_count_ = 0;
  std::uint64_t dropped_batches_ = 0;
  std::atomic<std::uint64_t> frames_taken_{0};

  BatchHandOver hand_over_;

  // Set by the transmitter before it passes or releases a batch, read by the pump after it has
  // waited for room.
  std::atomic<Seconds> gap_correction_{Seconds(0)};
  std::atomic<Seconds> queue_start_advance_{Seconds(0)};
  std::atomic<std::uint64_t> frames_sent_{0};  // written by whoever transmits
  // Set by the pump when it flushes, or by the transmitter when it fails.
  std::atomic<bool> finished_{false};
  std::atomic<bool> failed_{false};
};

}  // namespace ipplayout
