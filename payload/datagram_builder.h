// SPDX-License-Identifier: MIT
// Turns the stream of one playout into frames with their times, as far as data, marks and room
// allow, and waits for nothing.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>

#include "payload/data_buffer.h"
#include "payload/due_clock.h"
#include "payload/error_insertion_manager.h"
#include "payload/fault_insertion.h"
#include "payload/fec_feed.h"
#include "payload/run_changes.h"
#include "payload/run_statistics.h"
#include "payload/time_marks.h"
#include "platform/request_stack.h"
#include "protocol/pdu.h"
#include "protocol/replication_manager.h"
#include "protocol/sender.h"
#include "transmit/frame_ring.h"
#include "transmit/jitter_estimate.h"
#include "transmit/parametric_manager.h"

namespace ipplayout {

// What a builder calls: its frames are in a ring, and somebody sends them.
class FrameTaker {
 public:
  // The taker waits for a frame, and there is one; or none will come any more.
  virtual void OnFrames() = 0;
  // The run is over, as has_left says: by the builder's thread, so that the taker's waits for
  // nobody. Once.
  virtual void OnOver() = 0;
  // From the next datagram on the run is to be as changed, but for the speed. By the builder's
  // thread.
  virtual void OnChange(const RunChange& change) = 0;

 protected:
  ~FrameTaker() = default;
};

// All of it belongs to whoever makes the run; none is owned.
struct BuilderParts {
  CIPDataBuffer& source;
  TimeMarks& marks;
  RunChanges& changes;
  CErrorInsertionManager& errors;
  FaultInsertion& faults;
  CReplicationMgrBase& replication;
  CParametricManagerBase& parameters;
  DueClock& clock;
  RunStatistics& statistics;
  FrameRing& ring;
  std::atomic<bool>& all_built;
  const std::atomic<bool>& has_left;  // by the taker: no frame leaves any more
  FrameTaker& taker;
};

struct BuilderRules {
  DatagramShape shape;
  bool copies_share_time = false;
  std::uint32_t rtp_sequence_offset = 0;  // of the sequence number in a frame; 0: none
};

// The last Sender below a chain of layers, and what feeds the top of that chain. Build and Send
// belong to one thread at a time.
class DatagramBuilder final : public Sender, public platform::RequestNode {
 public:
  enum class Progress { kMore, kWaits, kDone };

  DatagramBuilder(const BuilderParts& parts, const BuilderRules& rules);

  // The chain that ends here. Before the first Build.
  void SetTop(Sender* top) { top_ = top; }
  // Where FEC datagrams come from that are to follow those of the stream; null: there are none.
  // Before the first Build.
  void SetFec(FecFeed* fec) { fec_ = fec; }

  // Builds up to `budget` frames. kWaits: it is to be called again when there is data, a mark or
  // room. kDone: everything is built, or memory ran out.
  Progress Build(int budget);
  // The frames end before the stream does. Any thread, once all_built is set.
  bool RanOutOfMemory() const { return out_of_memory_; }

  // ---- Sender ----
  bool Send(PDU& frame) override;
  std::uint32_t GetHeaderLength() const override { return 0; }

 private:
  using Time = std::chrono::nanoseconds;

  enum class Step { kDone, kWaits, kEnd };

  Progress BuildFrames(int budget);
  Step BeginDatagram();
  Step ReadPayload();
  bool FindTimes();
  bool FindDue();
  std::span<std::uint8_t> Payload();
  void EndFirstCopy();
  void SendCopy();
  void SendFecCopy();
  void SendOne(PDU& frame, Sender& top);
  bool BeginFec();
  bool BeginFecAtEnd();
  void EndDatagram();
  Time NextDue();
  Time NextFecDue();
  Time Jitter(std::uint64_t index);
  void Push(const PDU& frame);
  Progress Finish();

  const BuilderParts parts_;
  const BuilderRules rules_;
  Sender* top_ = nullptr;
  FecFeed* fec_ = nullptr;

  PDU frame_;
  const PDU* in_hand_ = nullptr;  // the frame that goes down the chain; another one was held back
  std::uint64_t offset_ = 0;      // of the stream: where the datagram in hand begins
  std::uint64_t index_ = 0;
  bool has_payload_ = false;
  bool is_begun_ = false;
  bool has_ended_ = false;  // the stream has
  bool is_fec_ = false;     // the copies in hand are of an FEC datagram
  bool is_done_ = false;
  bool is_over_ = false;
  bool out_of_memory_ = false;
  const std::int64_t copies_;
  const std::uint32_t burst_frames_;  // 1: no bursts
  bool has_jitter_;
  std::int64_t copy_ = 0;
  SpeedLine speed_;            // of the schedule
  std::optional<Time> due_;    // of the datagram in hand
  std::optional<Time> after_;  // of the one behind it
  std::uint64_t frame_count_ = 0;
  Time place_{0};  // of the copy in hand, before bursts and jitter
  Time burst_due_{0};
  Time last_due_{0};
  Time last_gap_{0};
  QueuedFrame queued_;  // of the copy in hand
  bool was_queued_ = false;
  ErrorStatistics before_;    // counts before the copy in hand
  std::uint32_t damage_ = 0;  // IPPLAYOUT_DID_..._CHECKSUM and _CORRUPT of the datagram in hand
  std::uint32_t did_ = 0;     // to it, by its first copy
  Time closed_{0};            // holes so far that were closed
  JitterEstimate jitter_;
};

}  // namespace ipplayout
