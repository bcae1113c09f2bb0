// SPDX-License-Identifier: MIT
#include "host/play/scheduled_playing.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "host/base/wall_clock.h"
#include "host/play/orders.h"
#include "host/play/start_rights.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {

ScheduledPlaying::ScheduledPlaying(const PlayOptions& options, const PlayPlan& plan,
                                   ScheduledPlayout playout,
                                   const std::optional<MarkedWriter::Clock>& clock,
                                   PacketFormat format, StreamFaults* faults)
    : options_(options), plan_(plan), playout_(std::move(playout)) {
  if (clock) {
    writer_.emplace(playout_, format, *clock, faults);
  }
}

std::optional<std::string> ScheduledPlaying::Configure() {
  if (auto failure = playout_.Configure(plan_.schedule)) {
    return failure->message;
  }
  if (!options_.ledger.empty()) {
    if (auto failure = playout_.WriteLedger(options_.ledger)) {
      return failure->message;
    }
  }
  is_configured_ = true;
  for (const IpPlayoutOrder& order : before_start_) {
    if (auto failure = playout_.Order(order)) {
      return failure->message;
    }
  }
  if (writer_) {
    playout_.Mark(0, std::chrono::nanoseconds(0));  // those of the clock follow it
  }
  return std::nullopt;
}

std::optional<std::string> ScheduledPlaying::Start() {
  if (auto reason = Configure()) {
    return reason;
  }
  std::optional<std::chrono::nanoseconds> start;
  if (options_.start_at) {
    start = *options_.start_at - WallClockOffset();
    if (*start < ScheduledPlayout::Now()) {
      return "the time of --start-at has passed";
    }
    starts_at_ = start;
  }
  if (writer_ && plan_.lead) {
    if (start) {
      writer_->Follow(*start, *plan_.lead);
    } else {
      start = writer_->FollowFromNow(*plan_.lead);
    }
  }
  KeepRightsToStart();
  auto failure = playout_.Start(start);
  return failure ? std::optional(failure->message) : std::nullopt;
}

std::optional<std::string> ScheduledPlaying::StartAt(ScheduledPlayout::Time time) {
  if (auto reason = Configure()) {
    return reason;
  }
  auto failure = playout_.Start(time);
  return failure ? std::optional(failure->message) : std::nullopt;
}

std::optional<double> ScheduledPlaying::FollowedPpm() const {
  return writer_ && plan_.lead ? std::optional(writer_->FollowedPpm()) : std::nullopt;
}

Feeder::Sink ScheduledPlaying::Sink() {
  if (writer_) {
    return writer_->Sink();
  }
  return {.write = WordWriter::Into([this](auto bytes) { return playout_.Write(bytes); }),
          .terminate = [this] { playout_.End(); }};
}

std::optional<std::string> ScheduledPlaying::FailedWithin(std::chrono::nanoseconds time) {
  const auto state = playout_.Wait(time);
  return state ? std::nullopt : std::optional(state.Error().message);
}

std::optional<std::string> ScheduledPlaying::Order(const Action& action,
                                                   std::chrono::nanoseconds at,
                                                   std::uint64_t number) {
  const IpPlayoutOrder order = OrderOf(action, at, number);
  if (!is_configured_) {
    before_start_.push_back(order);
    return std::nullopt;
  }
  auto failure = playout_.Order(order);
  return failure ? std::optional(failure->message) : std::nullopt;
}

void ScheduledPlaying::Pause(bool on) {
  if (on && !held_at_) {
    held_at_ = Position();
  } else if (!on) {
    held_at_.reset();
  }
  playout_.Pause(on);
}

// In a pause the schedule stands still, and has not been moved yet.
std::chrono::nanoseconds ScheduledPlaying::Position() const {
  const IpPlayoutTiming timing = playout_.Timing();
  if (held_at_ || timing.FirstDepartureNs < 0) {
    return held_at_.value_or(std::chrono::nanoseconds(0));
  }
  return ScheduledPlayout::Now() -
         std::chrono::nanoseconds(timing.FirstDepartureNs + timing.ShiftNs);
}

std::optional<std::string> ScheduledPlaying::Alter(const Change& change) {
  IpPlayoutSettings settings = plan_.schedule;
  settings.Errors = change.errors;
  settings.Faults = change.faults;
  settings.Parametric = change.shape;
  const auto failure = playout_.Change(settings, change.speed, change.at);
  return failure ? std::optional(failure->message) : std::nullopt;
}

std::vector<IpPlayoutDone> ScheduledPlaying::ReadDone() {
  std::vector<IpPlayoutDone> all_done;
  std::array<IpPlayoutDone, 64> some;
  while (const std::size_t count = playout_.ReadDone(some)) {
    // What is missing in a capture was nobody's order.
    std::copy_if(some.begin(), some.begin() + static_cast<std::ptrdiff_t>(count),
                 std::back_inserter(all_done),
                 [](const IpPlayoutDone& done) { return done.Number != MarkedWriter::kMissing; });
  }
  return all_done;
}

std::optional<std::string> ScheduledPlaying::Stop() {
  const auto failure = playout_.Stop();
  return failure ? std::optional(failure->message) : std::nullopt;
}

}  // namespace ipplay
