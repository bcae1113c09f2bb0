// SPDX-License-Identifier: MIT
// The thread that sends the frames of any number of playouts to one destination, each when it is
// due.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "driver/frame_sink.h"
#include "platform/deadline_waiter.h"
#include "platform/mutex.h"
#include "platform/request_stack.h"
#include "platform/wake_latency.h"
#include "transmit/osa_thread.h"
#include "transmit/scheduled_stream.h"
#include "transmit/stamp_book.h"

namespace ipplayout {

// Streams are ordered by the time of their next frame. What is due now is collected over all of
// them and leaves in one call. Other threads ask for attention by requests, which wake the thread;
// it alone touches the schedule. It takes no lock and no memory: it may be ahead of any thread that
// would hold one.
//
// Where time is virtual nothing leaves until each stream has said what its next frame is: the
// result does not depend on how fast anybody is.
class ScheduleTransmitter final : public OsaThread {
 public:
  using Time = std::chrono::nanoseconds;

  // `waiter` is a VirtualWaiter where time is virtual.
  ScheduleTransmitter(std::unique_ptr<platform::DeadlineWaiter> waiter, bool is_virtual);
  ~ScheduleTransmitter() override;

  Time Now() const { return waiter_->Now(); }

  // Room for so many is kept.
  static constexpr std::size_t kMostStreams = 16384;

  // The streams enter the schedule together. `start` is the time 0 of each; without one a stream
  // begins with its first frame. False when there would be more than kMostStreams.
  bool Add(std::span<ScheduledStream* const> streams, std::optional<Time> start);
  // Takes a stream out, if it was added, and returns when the thread has let go of it for good.
  // Nobody else makes requests for it by then. A sink that holds the thread for longer than a
  // second gives up the frames that it has in hand: those of other streams count as not sent.
  void Remove(ScheduledStream& stream);
  // Has the thread look at what a stream asks for. Any thread; takes no lock.
  void Request(ScheduledStream& stream);

  void Stop() override;

 private:
  // What is spun through at the end of a wait.
  enum class Waits {
    kExact,            // all of it that is not slept through safely
    kGatheredPrecise,  // part of a long one
    kGathered,         // nothing
  };

  // A frame that is being sent, or a place without one.
  struct Taken {
    ScheduledStream* stream = nullptr;
    const QueuedFrame* frame = nullptr;
    Time place{0};
    bool goes = false;
    int error = 0;
    Time planned{0};  // the last two: as before it was taken
    DeparturePolicy policy;
  };

  void Run() override;
  void TakeRequests();
  void TakeArrivals(platform::RequestNode* first);
  void HastenWakeUps();
  void Refresh(ScheduledStream& stream);
  void Pause(ScheduledStream& stream, Time now);
  void Schedule(ScheduledStream& stream, Time now);
  void LeaveSchedule(ScheduledStream& stream);
  void End(ScheduledStream& stream, int error);
  void AcknowledgeRemoval(ScheduledStream& stream);
  void GiveUpUntilRemoved(ScheduledStream& stream);
  void AdaptToLoad() IPPLAYOUT_REQUIRES(changes_mutex_);
  void Wait(Time now);

  void SendDue(Time now);
  void Collect(Time now);
  void TakeFrame(ScheduledStream& stream, Time now);
  void PlanNext(ScheduledStream& stream, Time now);
  void PlanWithoutRefused(ScheduledStream& stream);
  void SendCollected();
  std::size_t SendFrom(std::size_t first);
  bool TriesAgain(ScheduledStream& stream, const FrameSink::Result& result) const;
  void PutBack(std::size_t first);
  void Record(Time begun, Time ended);
  void AddToLedgers();
  void LetGo();

  // What is due by then leaves now.
  Time LatestDue(Time now) const;
  bool MayGo() const { return !is_virtual_ || awaiting_ == 0; }

  const std::unique_ptr<platform::DeadlineWaiter> waiter_;
  const bool is_virtual_;

  platform::RequestStack requests_;

  // What the streams that are in ask of the thread. Other threads' only.
  platform::Mutex changes_mutex_;
  std::size_t streams_ IPPLAYOUT_GUARDED_BY(changes_mutex_) = 0;
  std::size_t precise_streams_ IPPLAYOUT_GUARDED_BY(changes_mutex_) = 0;
  std::size_t giving_up_ IPPLAYOUT_GUARDED_BY(changes_mutex_) = 0;  // removals that do
  std::atomic<Waits> waits_{Waits::kExact};  // these two stored under the mutex
  std::atomic<double> frames_per_second_{0};

  // The rest is the thread's own.
  std::vector<ScheduledStream*> heap_;
  std::size_t awaiting_ = 0;
  std::uint64_t last_number_ = 0;
  Time last_wake_{0};
  std::optional<platform::ShortWakeUps> short_wake_ups_;
  StampBook stamps_;

  std::array<Taken, FrameSink::kMostFrames> taken_{};
  std::size_t taken_count_ = 0;
  std::array<OutgoingFrame, FrameSink::kMostFrames> burst_{};
  std::array<std::uint8_t, FrameSink::kMostFrames> taken_of_burst_{};
  std::size_t burst_count_ = 0;
};

}  // namespace ipplayout
