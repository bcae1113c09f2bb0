// SPDX-License-Identifier: MIT
// The objects of one run of a playout of the many.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "control/destinations.h"
#include "control/failure.h"
#include "control/header_chain.h"
#include "control/settings_store.h"
#include "ipplayout/playouts.h"
#include "payload/builder_pool.h"
#include "payload/data_buffer.h"
#include "payload/datagram_builder.h"
#include "payload/due_clock.h"
#include "payload/error_insertion_manager.h"
#include "payload/fault_insertion.h"
#include "payload/fault_orders.h"
#include "payload/run_changes.h"
#include "payload/run_statistics.h"
#include "payload/time_marks.h"
#include "platform/random.h"
#include "protocol/replication_manager.h"
#include "transmit/ledger_file.h"
#include "transmit/parametric_manager.h"
#include "transmit/schedule_transmitter.h"
#include "transmit/scheduled_stream.h"

namespace ipplayout {

// What lives as long as the process and is shared by all runs.
struct Surroundings {
  explicit Surroundings(SinkMaker& sinks) : destinations(sinks) {}

  Destinations destinations;
  BuilderPool builders;
};

// Built by a start, kept until the next one so that its figures can be read. Whoever owns it calls
// Launch once it is prepared, and Withdraw before it goes: in between other threads are at work on
// it, which Request and the two of FrameTaker and StreamListener join.
class ScheduledRun final : public FrameTaker, private StreamListener {
 public:
  // Told once when a run ends by itself, on the builder's thread.
  class Owner {
   public:
    // 0, or a system error number: the destination refused a frame.
    virtual void OnRunEnd(int error) = 0;

   protected:
    ~Owner() = default;
  };

  // What it reads from outlives the run, which is the only one to do so.
  struct Sources {
    CIPDataBuffer& data;
    TimeMarks& marks;
    FaultOrders& orders;
    RunChanges& changes;
  };

  // An empty `ledger_path` leaves the ledger to others.
  ScheduledRun(const IpPlayoutSettings& settings, const Sources& sources,
               Surroundings& surroundings, Owner& owner, const std::string& ledger_path);
  ScheduledRun(const ScheduledRun&) = delete;
  ScheduledRun& operator=(const ScheduledRun&) = delete;
  ~ScheduledRun();

  // Builds the chain and opens the destination. A failure leaves nothing behind.
  Failure Prepare();
  // Has the frames built. After the stream has been added to its transmitter.
  void Launch();
  // Takes the run from all other threads. A file that could not be written whole is the failure.
  // A ledger's file appears only where Launch was called.
  Failure Withdraw();

  ScheduleTransmitter& Transmitter() const { return route_.destination->transmitter; }
  ScheduledStream& Stream() { return *stream_; }

  // There is data or a mark. Any thread, between Launch and the beginning of Withdraw.
  void RequestFrames() { builder_thread_->Request(*builder_); }
  void Pause(bool on);

  // Any time after Prepare, any thread.
  bool RanOutOfMemory() const { return builder_->RanOutOfMemory(); }
  PlayoutStatistics Statistics() const { return statistics_.Read(); }
  void ReadTiming(IpPlayoutTiming& out) const;
  LatenessHistogram::Part LatenessUpTo(std::chrono::nanoseconds bound) const {
    return stream_->timing.Lateness().UpTo(bound);
  }
  DepartureLedger& Ledger() { return stream_->ledger; }
  bool WritesLedger() const { return !ledger_path_.empty(); }
  std::uint64_t Seed() const { return seed_; }
  IpPlayoutFaultCounts Faults() const { return faults_.Counts(); }
  bool IsRtp() const { return settings_.params.ProtocolMode == IPPLAYOUT_RTP; }

 private:
  void OnFrames() override { Transmitter().Request(*stream_); }
  void OnRoom() override { RequestFrames(); }
  void OnFullLedger() override;
  void OnEnd(int error) override;
  void OnChange(const RunChange& change) override;
  void OnOver() override { owner_.OnRunEnd(end_error_.load()); }

  void LoadManagers();
  Failure MakeStream(const StreamRules& rules, std::size_t longest_frame);
  Failure OpenLedgerFile();
  void BuildFec(std::uint32_t headers, std::uint32_t payload_bytes);
  void SetRate(std::uint32_t payload_bytes, std::uint32_t datagram_bytes);
  StreamRules RulesFor(std::uint32_t payload_bytes) const;
  double FramesPerSecond(std::uint32_t payload_bytes) const;

  const IpPlayoutSettings ordered_;
  const std::uint64_t seed_;
  platform::Random random_;
  const PlayoutSettings settings_;
  CIPDataBuffer& source_;
  TimeMarks& marks_;
  RunChanges& changes_;
  Surroundings& surroundings_;
  Owner& owner_;
  const std::string ledger_path_;

  // One of the two kinds of FEC datagrams.
  struct FecStream {
    FecStream(const IpPlayoutSettings& ordered, const PlayoutSettings& media, FecFeed::Kind kind,
              platform::Random& random, CSwClock& clock, Sender* bottom);

    const PlayoutSettings settings;
    CErrorInsertionManager errors;
    CZebReplicationMgr replication;
    HeaderChain chain;
  };

  CErrorInsertionManager errors_;
  FaultInsertion faults_;
  CZebReplicationMgr replication_;
  CZebParametricManager parametric_;
  DueClock clock_;
  RunStatistics statistics_;
  HeaderChain chain_;
  Route route_;
  std::string sender_;  // of the destination, which may have been left
  std::unique_ptr<ScheduledStream> stream_;
  std::unique_ptr<LedgerFile> ledger_file_;
  bool is_launched_ = false;  // of who launches and withdraws
  std::unique_ptr<DatagramBuilder> builder_;
  std::array<std::unique_ptr<FecStream>, FecFeed::kKinds> fec_streams_;
  std::unique_ptr<FecFeed> fec_;
  BuilderThread* builder_thread_ = nullptr;
  std::atomic<int> end_error_{0};
  std::atomic<bool> has_left_{false};  // behind end_error_
};

}  // namespace ipplayout
