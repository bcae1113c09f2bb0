// SPDX-License-Identifier: MIT
// One of many playouts in this process: ordered, started, changed, damaged and watched by name. The
// engine (engine.h) makes channels, and feeds them.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/event.h"
#include "host/base/result.h"
#include "host/library/scheduled_playout.h"
#include "host/lineup/channel_order.h"
#include "host/play/play_plan.h"
#include "host/play/preparation.h"
#include "ipplayout/playouts.h"

namespace ipplay {

enum class ChannelState {
  kReady,    // never started
  kPlaying,  // or about to, at its time
  kPaused,
  kWaiting,  // for its input, or to be started again
  kEnded,    // everything left
  kStopped,  // by request
  kFailed,
};

inline bool Plays(ChannelState state) {
  return state == ChannelState::kPlaying || state == ChannelState::kPaused;
}
std::string_view NameOf(ChannelState state);

// How the stream is to go on; what is empty stays.
struct ChannelChange {
  std::optional<double> bit_rate;  // of the transport stream; not where it follows its PCRs
  std::optional<double> ppm;       // in place of that of the order
};

struct ChannelStatus {
  std::string name, input, target;
  std::string device;  // empty until it was looked for
  ChannelState state = ChannelState::kReady;
  std::uint32_t starts = 0;
  std::optional<std::int64_t> started_ns, ended_ns;  // of this or the last run, since 1970
  // Of this or the last run.
  std::chrono::nanoseconds elapsed{0};  // since the start, pauses included
  std::optional<double> set_rate_bps;   // of the transport stream
  std::optional<double> rate_bps;       // the same as it left in the last seconds, while it plays
  std::optional<double> mean_rate_bps;  // from the first departure to the last
  double ppm = 0;
  bool follows_pcrs = false;
  std::uint64_t damage_orders = 0;  // datagrams ordered to be damaged while it played
  PlayoutStatistics counters{};     // LostPackets and the like are what was done
  IpPlayoutFaultCounts faults{};    // the other kinds
  IpPlayoutTiming timing{};         // times are -1 until a frame has left
  std::string last_error;           // of any run; empty for none
  std::vector<std::string> notes;   // of the plan
};

struct ChannelEvent {
  std::int64_t time_ns = 0;  // since 1970
  std::string channel;
  ChannelState state = ChannelState::kReady;
  std::string text;  // what happened: "playing", "lose 3", "failed: ..."
};
// Called on the thread on which it happens, without a lock; returns soon.
using OnChannelEvent = std::function<void(const ChannelEvent&)>;

class ChannelRun;
class InputLook;
class Keeper;

// Any thread may call any function. A failure names what is refused.
class Channel : public std::enable_shared_from_this<Channel> {
 public:
  using Time = std::chrono::nanoseconds;  // points in time are on CLOCK_MONOTONIC

  // For the engine.
  Channel(ChannelOrder order, PlayOptions options, Keeper& keeper, OnChannelEvent on_event);
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel();

  const ChannelOrder& Order() const { return order_; }
  // The order as `ipplay play` would have it.
  const PlayOptions& Options() const { return options_; }

  // At `at`, or at once. Reads the input and may ask for a MAC address, which takes up to seconds.
  // An input that comes at its own pace is not waited for: the channel starts when it has come.
  // Refused while it plays.
  std::optional<Failure> Start(std::optional<Time> at = std::nullopt);
  std::optional<Failure> Pause(bool on);
  // Ends it at once, also one that waits; within about a second.
  std::optional<Failure> Stop();
  // Shows after what was written ahead, within about half a second.
  std::optional<Failure> Change(const ChannelChange& change);
  // From the next datagram on that no other order has taken.
  std::optional<Failure> Damage(const Action& fault);

  ChannelStatus Status() const;
  // Of this or the last run: for each bound how many frames left at most so late; zeros before.
  std::vector<ScheduledPlayout::Lateness> LatenessUpTo(std::span<const Time> bounds) const;

 private:
  friend class Engine;

  // The steps of a start, on the keeper's thread.
  std::optional<Failure> MakeReady();
  std::optional<Failure> BeginStart();
  std::optional<Failure> GiveUpStart(const Failure& failure);
  std::optional<Failure> MakeRun(Result<Opened>&& opened, std::unique_ptr<Event> stop_reading);
  std::optional<Failure> Launch(std::optional<Time> at);
  bool Launched(const std::optional<Failure>& failure, Time at);
  // The other way, where the input comes at its own pace.
  bool WaitsForInput() const;
  std::optional<Failure> AwaitInput();
  void InputCame(std::uint32_t start);
  // On the feeding thread. False once the run is over.
  bool Serve(const std::shared_ptr<ChannelRun>& run);
  void Obey(ChannelRun& run, const Action& action);
  void ReportOrdered(const Action& fault);
  void RunHasEnded(const std::shared_ptr<ChannelRun>& run);
  // Once it has ended by itself, or could not start.
  void Conclude(ChannelState state, const std::string& text);
  // Nothing starts it any more.
  void Retire();
  Result<std::shared_ptr<ChannelRun>> Playing() const;
  Failure Named(const Failure& failure) const;
  void Report(ChannelState state, const std::string& text) const;

  const ChannelOrder order_;
  const PlayOptions options_;
  Keeper& keeper_;
  const OnChannelEvent on_event_;

  mutable std::mutex mutex_;  // guards all that follows
  ChannelState state_ = ChannelState::kReady;
  bool starting_ = false;  // a start is under way on the keeper's thread
  std::uint32_t starts_ = 0;
  std::uint32_t stops_ = 0;  // a start that was begun or planned before a stop is void
  std::uint32_t stops_at_start_ = 0;
  bool retired_ = false;
  std::unique_ptr<InputLook> look_;  // while a start waits for the input
  std::shared_ptr<ChannelRun> run_;  // this or the last one
  std::uint64_t damage_orders_ = 0;
  std::string last_error_;
};

}  // namespace ipplay
