// SPDX-License-Identifier: MIT
// One playout of the many: its life from settings to a run and back.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "control/failure.h"
#include "control/fault_rules.h"
#include "control/scheduled_run.h"
#include "ipplayout/playouts.h"
#include "payload/data_buffer.h"
#include "payload/run_changes.h"
#include "payload/time_marks.h"
#include "platform/host_event.h"
#include "platform/mutex.h"

namespace ipplayout {

// Any thread may call anything. Operations that configure, start and stop wait for each other; none
// is held up by a host that blocks in Write or Wait. Who uses the run or the ring while it may be
// exchanged holds a share of it.
class ScheduledPlayout final : private ScheduledRun::Owner, private ReadableListener {
 public:
  // `surroundings` outlive it.
  explicit ScheduledPlayout(Surroundings& surroundings) : surroundings_(surroundings) {}
  ScheduledPlayout(const ScheduledPlayout&) = delete;
  ScheduledPlayout& operator=(const ScheduledPlayout&) = delete;
  ~ScheduledPlayout();

  // Ends for good: what blocks in a call is released, and nothing can be started any more.
  Failure Close();

  Failure Configure(const IpPlayoutSettings& settings);
  Failure WriteLedger(const char* path);
  Failure Mark(std::uint64_t offset, std::int64_t time_ns);

  // A start of several is prepared for each and then launched for all, or abandoned.
  Failure Prepare();
  void Abandon();
  // The run that was prepared. By whoever prepared it.
  ScheduledRun& Prepared() { return *next_run_; }
  void Launched();

  Failure Write(const std::uint8_t* data, std::size_t bytes);
  Failure TryWrite(const std::uint8_t* data, std::size_t bytes, std::size_t& taken);
  Failure End();
  Failure Wait(std::optional<std::chrono::nanoseconds> timeout);
  platform::EventHandle EndEvent();
  Failure Pause(bool on);
  Failure Stop();
  Failure Order(const IpPlayoutOrder& order);
  // Of `settings` errors, faults and jitter are taken.
  Failure Change(const IpPlayoutSettings& settings, double speed, std::int64_t at_ns);
  Failure ReadDone(IpPlayoutDone* out, std::size_t room, std::size_t& taken);

  Failure GetStatistics(PlayoutStatistics& out);
  Failure GetTiming(IpPlayoutTiming& out);
  Failure GetFaults(IpPlayoutFaultCounts& out);
  Failure GetLateness(std::int64_t up_to_ns, std::uint64_t& frames, std::int64_t& sum_ns);
  Failure ReadLedger(IpPlayoutRecord* out, std::size_t room, std::size_t& taken);
  Failure ReadDepartures(IpPlayoutDeparture* out, std::size_t room, std::size_t& taken);
  std::uint64_t Seed();

 private:
  enum class State { kIdle, kPreparing, kRunning, kClosed };

  // What a host writes to; exchanged by Configure and Stop.
  struct Input {
    explicit Input(const IpPlayoutSettings& settings)
        : ordered(settings), ring(settings.RingBytes), orders_of(settings) {}

    const IpPlayoutSettings ordered;
    CIPDataBuffer ring;
    TimeMarks marks;
    const OrderRules orders_of;
    FaultOrders orders;
    RunChanges changes;
    std::atomic<std::uint64_t> written{0};
  };

  // How one run ended; whoever waits for it has a share.
  struct Ending {
    bool is_over = false;
    int error = 0;
    bool ran_out_of_memory = false;
  };

  void OnRunEnd(int error) override;
  void OnReadable() override;
  Failure RenewInput() IPPLAYOUT_REQUIRES(control_mutex_);
  void ExchangeInput(std::shared_ptr<Input> input);
  // It has settings and does not run.
  Failure CheckReady(const char* when_it_runs) const IPPLAYOUT_REQUIRES(control_mutex_);
  Failure EndRun() IPPLAYOUT_REQUIRES(control_mutex_);
  Failure MakeEndEvent();
  template <typename Record, typename Convert>
  Failure TakeFromLedger(std::span<Record> out, std::size_t& taken, Convert convert);
  std::shared_ptr<Input> ShareInput();
  std::shared_ptr<ScheduledRun> ShareRun();
  void RequestFrames();

  Surroundings& surroundings_;

  // Serialises the lifecycle.
  platform::Mutex control_mutex_;
  platform::ConditionVariable prepared_;
  State state_ IPPLAYOUT_GUARDED_BY(control_mutex_) = State::kIdle;
  std::optional<IpPlayoutSettings> settings_ IPPLAYOUT_GUARDED_BY(control_mutex_);
  std::string ledger_path_ IPPLAYOUT_GUARDED_BY(control_mutex_);  // empty: no file
  // Of the start that is under way: whoever prepares it alone looks at them.
  std::shared_ptr<ScheduledRun> next_run_;
  std::shared_ptr<Input> next_input_;
  std::shared_ptr<Ending> next_ending_;

  // What other calls share. Held for moments; beneath the control mutex where both are held.
  platform::Mutex shared_mutex_;
  std::shared_ptr<Input> input_ IPPLAYOUT_GUARDED_BY(shared_mutex_);
  // Exchanged under both mutexes, so read under either; kept after its end for its figures.
  std::shared_ptr<ScheduledRun> run_;
  std::shared_ptr<Input> run_input_ IPPLAYOUT_GUARDED_BY(shared_mutex_);  // that the run reads from
  bool takes_requests_ IPPLAYOUT_GUARDED_BY(shared_mutex_) = false;

  // The end of the run.
  platform::Mutex end_mutex_;
  platform::ConditionVariable ended_;
  std::shared_ptr<Ending> ending_ IPPLAYOUT_GUARDED_BY(end_mutex_);  // null before the first run
  std::optional<platform::OwnedHostEvent> end_event_ IPPLAYOUT_GUARDED_BY(end_mutex_);
  platform::Mutex ledger_mutex_;  // one thread takes records at a time
};

}  // namespace ipplayout
