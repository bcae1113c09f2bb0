// SPDX-License-Identifier: MIT
// One run of a channel: its playout, what feeds it, and how fast it goes.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "host/base/event.h"
#include "host/base/result.h"
#include "host/library/adapters.h"
#include "host/library/scheduled_playout.h"
#include "host/lineup/channel_feed.h"
#include "host/lineup/live_feed.h"
#include "host/play/play_options.h"
#include "host/play/preparation.h"
#include "host/play/time_line.h"

namespace ipplay {

class ChannelRun {
 public:
  using Time = std::chrono::nanoseconds;

  // Ready to start: the destination is known, and the first data of a file is written. The input
  // was looked at; it is read no more once `stop_reading` is set. `spread`, 0 to 1, is the share of
  // the gap by which its first frame waits.
  static Result<std::shared_ptr<ChannelRun>> Make(const PlayOptions& options,
                                                  const std::vector<Adapter>& adapters,
                                                  Opened&& opened,
                                                  std::unique_ptr<Event> stop_reading,
                                                  double spread);
  ChannelRun(const ChannelRun&) = delete;
  ChannelRun& operator=(const ChannelRun&) = delete;
  ~ChannelRun();

  ScheduledPlayout& Playout() { return playout_; }
  const PlayPlan& Plan() const { return plan_; }
  const Path& PathOf() const { return path_; }
  int ReadError() const { return feed_ ? feed_->ReadError() : live_feed_->ReadError(); }

  // When it is to start if that is soon, on CLOCK_MONOTONIC; nothing: as soon as it has data.
  std::optional<Time> NextStart();
  // The start itself has happened; `at` is its time on CLOCK_MONOTONIC.
  void Started(Time at);
  // Its rate is that of its input.
  bool FollowsInput() const { return plan_.lead.has_value(); }
  bool IsStarted() const { return started_.load(); }
  Time StartedAt() const { return started_at_; }

  // For the feeding thread: writes ahead, and takes a reading of the rate.
  void Feed();
  // An order of --at that is due.
  std::optional<Action> TakeDue(Time now);

  void SetRate(std::optional<double> bit_rate, std::optional<double> ppm);
  double SetBitRate() const;
  double Ppm() const;
  // Of the last seconds; none before two readings.
  std::optional<double> BitRate() const;
  // From the first departure to the last.
  std::optional<double> MeanBitRate() const;

  // Ends reading and playing; blocks until both have ended.
  void Stop();
  bool WasStopped() const { return stopped_.load(); }
  std::optional<std::int64_t> EndedNs() const;
  void Ended();

 private:
  struct Reading {
    Time time;
    std::uint64_t bytes;
  };

  ChannelRun(Prepared&& prepared, const PlayOptions& options, ScheduledPlayout playout,
             std::unique_ptr<Event> stop_reading);
  std::optional<Failure> Configure(double spread);
  void TakeReading();

  const Path path_;
  const PlayPlan plan_;
  const std::unique_ptr<Event> stop_reading_;
  const bool is_file_;
  ScheduledPlayout playout_;
  std::unique_ptr<RoundReader> reader_;  // until the feed has it
  std::unique_ptr<ChannelFeed> feed_;    // or
  std::unique_ptr<LiveFeed> live_feed_;  // of an input that comes at its own pace, by its clock
  std::thread live_feeding_;             // and by another one: waits in feed_
  TimeLine time_line_;                   // the feeding thread's
  bool fed_ = false;                     // the same
  Time started_at_{0};                   // before started_ is set
  std::atomic<bool> started_{false};
  std::atomic<bool> stopped_{false};

  std::mutex stop_mutex_;     // one at a time joins live_feeding_
  mutable std::mutex mutex_;  // guards what follows
  double ppm_;
  double nominal_rate_;  // without ppm_, as planned
  double rate_;          // without ppm_, as changed
  std::deque<Reading> readings_;
  std::optional<std::int64_t> ended_ns_;
};

}  // namespace ipplay
