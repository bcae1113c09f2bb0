// SPDX-License-Identifier: MIT
#include "host/lineup/channel.h"

#include <fmt/format.h>

#include <cmath>
#include <cstring>
#include <utility>

#include "host/base/address.h"
#include "host/base/name_hash.h"
#include "host/base/units.h"
#include "host/base/wall_clock.h"
#include "host/lineup/channel_run.h"
#include "host/lineup/input_look.h"
#include "host/lineup/keeper.h"
#include "host/play/orders.h"

namespace ipplay {
namespace {

constexpr double kMostPpm = 1e5;

// A fixed place between 0 and 1 for each name, so that channels of one rate do not send together.
double SpreadOf(std::string_view name) {
  std::uint64_t hash = HashOfName(name);
  hash ^= hash >> 32;
  return static_cast<double>(hash * 0x9E3779B97F4A7C15U >> 11) / 9007199254740992.0;
}

// As the library has it while no frame has left.
IpPlayoutTiming NothingTimed() {
  IpPlayoutTiming timing{};
  for (std::int64_t IpPlayoutTiming::*time :
       {&IpPlayoutTiming::LatenessP50Ns, &IpPlayoutTiming::LatenessP99Ns,
        &IpPlayoutTiming::LatenessP999Ns, &IpPlayoutTiming::LatenessMaxNs,
        &IpPlayoutTiming::FirstDepartureNs, &IpPlayoutTiming::LastDepartureNs,
        &IpPlayoutTiming::LongestGapNs, &IpPlayoutTiming::StampP50Ns, &IpPlayoutTiming::StampP99Ns,
        &IpPlayoutTiming::StampP999Ns, &IpPlayoutTiming::StampMaxNs}) {
    timing.*time = -1;
  }
  return timing;
}

}  // namespace

std::string_view NameOf(ChannelState state) {
  switch (state) {
    case ChannelState::kReady:
      return "ready";
    case ChannelState::kPlaying:
      return "playing";
    case ChannelState::kPaused:
      return "paused";
    case ChannelState::kWaiting:
      return "waiting";
    case ChannelState::kEnded:
      return "ended";
    case ChannelState::kStopped:
      return "stopped";
    case ChannelState::kFailed:
      return "failed";
  }
  return "";
}

Channel::Channel(ChannelOrder order, PlayOptions options, Keeper& keeper, OnChannelEvent on_event)
    : order_(std::move(order)),
      options_(std::move(options)),
      keeper_(keeper),
      on_event_(std::move(on_event)) {}

Channel::~Channel() = default;

Failure Channel::Named(const Failure& failure) const {
  return {failure.status, fmt::format("{}: {}", order_.name, failure.message), failure.details};
}

void Channel::Report(ChannelState state, const std::string& text) const {
  if (on_event_) {
    on_event_({WallClockNow().count(), order_.name, state, text});
  }
}

Result<std::shared_ptr<ChannelRun>> Channel::Playing() const {
  const std::lock_guard lock(mutex_);
  if (!Plays(state_)) {
    return Failure{ExitStatus::kFailed,
                   fmt::format("{}: not playing, but {}", order_.name, NameOf(state_))};
  }
  return run_;
}

std::optional<Failure> Channel::BeginStart() {
  const std::lock_guard lock(mutex_);
  if (Plays(state_) || starting_ || retired_) {
    return Failure{ExitStatus::kFailed,
                   fmt::format("{}: {}", order_.name, retired_ ? "removed" : "started already")};
  }
  starting_ = true;
  stops_at_start_ = stops_;
  return std::nullopt;
}

std::optional<Failure> Channel::GiveUpStart(const Failure& failure) {
  {
    const std::lock_guard lock(mutex_);
    starting_ = false;
  }
  Conclude(ChannelState::kFailed, failure.message);
  return Named(failure);
}

std::optional<Failure> Channel::MakeReady() {
  if (auto failure = BeginStart()) {
    return failure;
  }
  auto stop_reading = std::make_unique<Event>();
  const int stop_fd = stop_reading->Get();
  return MakeRun(LookAtInput(options_, stop_fd), std::move(stop_reading));
}

std::optional<Failure> Channel::MakeRun(Result<Opened>&& opened,
                                        std::unique_ptr<Event> stop_reading) {
  if (!opened) {
    return GiveUpStart(opened.Error());
  }
  auto run = ChannelRun::Make(options_, keeper_.Adapters(), std::move(*opened),
                              std::move(stop_reading), SpreadOf(order_.name));
  if (!run) {
    return GiveUpStart(run.Error());
  }
  const std::lock_guard lock(mutex_);
  run_ = *std::move(run);
  return std::nullopt;
}

bool Channel::WaitsForInput() const {
  return ComesAtItsOwnPace(options_);
}

std::optional<Failure> Channel::AwaitInput() {
  if (auto failure = BeginStart()) {
    return failure;
  }
  if (const auto failure = CheckWithoutInput(options_, keeper_.Adapters())) {
    return GiveUpStart(*failure);
  }
  {
    const std::lock_guard lock(mutex_);
    if (stops_ != stops_at_start_) {
      starting_ = false;
      return std::nullopt;
    }
    state_ = ChannelState::kWaiting;
    // It is given up before the keeper is gone.
    look_ = std::make_unique<InputLook>(
        options_, [self = weak_from_this(), &keeper = keeper_, start = stops_] {
          keeper.At(Time(0), [self, start] {
            if (const auto channel = self.lock()) {
              channel->InputCame(start);
            }
          });
        });
  }
  Report(ChannelState::kWaiting, fmt::format("waiting for {}", options_.input));
  return std::nullopt;
}

// Each start that a stop made void has had another number of stops before it.
void Channel::InputCame(std::uint32_t start) {
  std::unique_ptr<InputLook> look;
  {
    const std::lock_guard lock(mutex_);
    if (stops_at_start_ == start) {
      look = std::move(look_);
    }
  }
  if (look && !MakeRun(look->Take(), look->TakeStop())) {
    Launch(std::nullopt);
  }
}

std::optional<Failure> Channel::Launch(std::optional<Time> at) {
  const std::optional<Time> start = at ? at : run_->NextStart();
  auto failure = run_->Playout().Start(start);
  Launched(failure, start.value_or(ScheduledPlayout::Now()));
  return failure ? std::optional(Named(*failure)) : std::nullopt;
}

// False where a stop came before.
bool Channel::Launched(const std::optional<Failure>& failure, Time at) {
  std::unique_lock lock(mutex_);
  const auto run = run_;
  starting_ = false;
  const bool is_void = stops_ != stops_at_start_;
  if (!failure && !is_void) {
    ++starts_;
    damage_orders_ = 0;
    run->Started(at);
    state_ = ChannelState::kPlaying;
    lock.unlock();
    Report(ChannelState::kPlaying, "playing");
    keeper_.Feed([self = shared_from_this(), run] { return self->Serve(run); });
    return true;
  }
  lock.unlock();
  run->Stop();
  if (failure) {
    Conclude(ChannelState::kFailed, failure->message);
  }
  return false;
}

std::optional<Failure> Channel::Start(std::optional<Time> at) {
  return keeper_.Do([this, at] {
    if (WaitsForInput()) {
      return AwaitInput();
    }
    auto failure = MakeReady();
    return failure ? failure : Launch(at);
  });
}

bool Channel::Serve(const std::shared_ptr<ChannelRun>& run) {
  run->Feed();
  while (const auto action = run->TakeDue(ScheduledPlayout::Now())) {
    Obey(*run, *action);
  }
  const auto state = run->Playout().Wait(Time(0));
  if (state && *state == ScheduledPlayout::State::kGoesOn) {
    return true;
  }
  run->Ended();
  RunHasEnded(run);
  return false;
}

void Channel::Obey(ChannelRun& run, const Action& action) {
  if (action.kind == ActionKind::kPause || action.kind == ActionKind::kResume) {
    Pause(action.kind == ActionKind::kPause);
  } else if (action.kind == ActionKind::kStop) {
    // It may take a second, and others are to be fed.
    keeper_.At(Time(0), [self = shared_from_this()] { self->Stop(); });
  }
  if (IsFault(action.kind) && !run.Playout().Order(OrderOf(action, Time(0), 0))) {
    ReportOrdered(action);
  }
}

void Channel::RunHasEnded(const std::shared_ptr<ChannelRun>& run) {
  {
    const std::lock_guard lock(mutex_);
    if (run != run_ || !Plays(state_)) {
      return;  // stopped
    }
  }
  const auto state = run->Playout().Wait(Time(0));
  if (!state) {
    Conclude(ChannelState::kFailed, state.Error().message);
  } else if (run->ReadError() != 0) {
    Conclude(ChannelState::kFailed, fmt::format("{} could not be read to its end: {}",
                                                options_.input, std::strerror(run->ReadError())));
  } else {
    Conclude(ChannelState::kEnded, "ended");
  }
}

void Channel::Conclude(ChannelState state, const std::string& text) {
  const bool failed = state == ChannelState::kFailed;
  const bool again =
      order_.restart == Restart::kAlways || (failed && order_.restart == Restart::kOnFailure);
  const std::string what = failed ? fmt::format("failed: {}", text) : text;
  std::uint32_t stops = 0;
  {
    const std::lock_guard lock(mutex_);
    if (stops_ != stops_at_start_) {
      return;  // a stop came first
    }
    stops = stops_;
    state_ = state = again && !retired_ ? ChannelState::kWaiting : state;
    last_error_ = failed ? text : last_error_;
  }
  Report(state, what);
  if (state != ChannelState::kWaiting) {
    return;
  }
  keeper_.At(ScheduledPlayout::Now() + order_.restart_after, [self = weak_from_this(), stops] {
    const auto channel = self.lock();
    if (!channel) {
      return;
    }
    {
      const std::lock_guard lock(channel->mutex_);
      if (channel->stops_ != stops || channel->state_ != ChannelState::kWaiting) {
        return;
      }
    }
    channel->Start();
  });
}

std::optional<Failure> Channel::Pause(bool on) {
  const auto run = Playing();
  if (!run) {
    return run.Error();
  }
  if (const auto failure = (*run)->Playout().Pause(on)) {
    return Named(*failure);
  }
  const ChannelState state = on ? ChannelState::kPaused : ChannelState::kPlaying;
  {
    const std::lock_guard lock(mutex_);
    if (!Plays(state_)) {
      return std::nullopt;
    }
    state_ = state;
  }
  Report(state, on ? "paused" : "playing");
  return std::nullopt;
}

std::optional<Failure> Channel::Stop() {
  std::shared_ptr<ChannelRun> run;
  std::unique_ptr<InputLook> look;  // ends without the lock
  bool changes = false;
  {
    const std::lock_guard lock(mutex_);
    ++stops_;
    look = std::move(look_);
    starting_ = starting_ && !look;
    if (Plays(state_)) {
      run = run_;
    }
    changes = run != nullptr || starting_ || state_ == ChannelState::kWaiting;
    if (changes) {
      state_ = ChannelState::kStopped;
    }
  }
  if (run) {
    run->Stop();
    run->Ended();
  }
  if (changes) {
    Report(ChannelState::kStopped, "stopped");
  }
  return std::nullopt;
}

void Channel::Retire() {
  {
    const std::lock_guard lock(mutex_);
    retired_ = true;
  }
  Stop();
}

std::optional<Failure> Channel::Change(const ChannelChange& change) {
  const auto run = Playing();
  if (!run) {
    return run.Error();
  }
  const auto refuse = [this](const std::string& why) { return Named(UsageFailure(why)); };
  if ((*run)->FollowsInput()) {
    return refuse(
        "rate: the clock of its input is followed, as it comes once; only a file is played faster "
        "or slower");
  }
  if (change.bit_rate && (*run)->Plan().pcr_rate) {
    return refuse("bitrate: it is played at the times of its PCRs; give ppm, or order a bitrate");
  }
  if (change.bit_rate && !(std::isfinite(*change.bit_rate) && *change.bit_rate > 0)) {
    return refuse(fmt::format("bitrate: {} is not valid; give a number above 0", *change.bit_rate));
  }
  if (change.ppm && !(std::abs(*change.ppm) <= kMostPpm)) {
    return refuse(fmt::format("ppm: {} is not valid; give -100000 to 100000", *change.ppm));
  }
  (*run)->SetRate(change.bit_rate, change.ppm);
  Report(ChannelState::kPlaying, fmt::format("rate {}", FormatBitRate((*run)->SetBitRate())));
  return std::nullopt;
}

std::optional<Failure> Channel::Damage(const Action& fault) {
  const auto run = Playing();
  if (!run) {
    return run.Error();
  }
  if (const auto failure = (*run)->Playout().Order(OrderOf(fault, Time(0), 0))) {
    return Named(*failure);
  }
  ReportOrdered(fault);
  return std::nullopt;
}

void Channel::ReportOrdered(const Action& fault) {
  const bool has_length = fault.kind == ActionKind::kBreak;
  ChannelState state{};
  {
    const std::lock_guard lock(mutex_);
    damage_orders_ += has_length ? 0 : fault.count;
    state = state_;
  }
  Report(state, has_length ? fmt::format("{} {}", NameOf(fault.kind), FormatDuration(fault.length))
                           : fmt::format("{} {}", NameOf(fault.kind), fault.count));
}

ChannelStatus Channel::Status() const {
  ChannelStatus status;
  std::shared_ptr<ChannelRun> run;
  status.name = order_.name;
  status.input = options_.input;
  status.target = FormatTarget(options_.to);
  {
    const std::lock_guard lock(mutex_);
    status.state = state_;
    status.starts = starts_;
    status.damage_orders = damage_orders_;
    status.last_error = last_error_;
    run = starting_ ? nullptr : run_;
  }
  status.timing = NothingTimed();
  if (!run) {
    return status;
  }
  status.device = run->PathOf().adapter.name;
  status.follows_pcrs = run->Plan().pcr_rate.has_value();
  status.notes = run->Plan().notes;
  status.set_rate_bps = run->SetBitRate();
  status.ppm = run->Ppm();
  if (!run->IsStarted()) {
    return status;
  }
  const std::int64_t now = WallClockNow().count();
  status.started_ns = (run->StartedAt() + WallClockOffset()).count();
  status.ended_ns = run->EndedNs();
  status.elapsed =
      Time(std::max<std::int64_t>(0, status.ended_ns.value_or(now) - *status.started_ns));
  status.rate_bps = run->BitRate();
  status.mean_rate_bps = run->MeanBitRate();
  status.counters = run->Playout().Statistics();
  status.faults = run->Playout().Faults();
  status.timing = run->Playout().Timing();
  return status;
}

std::vector<ScheduledPlayout::Lateness> Channel::LatenessUpTo(std::span<const Time> bounds) const {
  std::shared_ptr<ChannelRun> run;
  {
    const std::lock_guard lock(mutex_);
    run = starting_ ? nullptr : run_;
  }
  std::vector<ScheduledPlayout::Lateness> parts;
  for (const Time bound : bounds) {
    parts.push_back(run && run->IsStarted() ? run->Playout().LatenessUpTo(bound)
                                            : ScheduledPlayout::Lateness());
  }
  return parts;
}

}  // namespace ipplay
