// SPDX-License-Identifier: MIT
#include "host/play/twin_playing.h"

#include <utility>

#include "host/play/start_rights.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {

TwinPlaying::TwinPlaying(std::unique_ptr<ScheduledPlaying> first,
                         std::unique_ptr<ScheduledPlaying> second, std::chrono::nanoseconds lead,
                         std::chrono::nanoseconds skew)
    : first_(std::move(first)), second_(std::move(second)), lead_(lead), skew_(skew) {}

std::optional<std::string> TwinPlaying::Start() {
  if (second_ == nullptr) {
    return "--twin: memory has run out";
  }
  KeepRightsToStart();
  const ScheduledPlayout::Time start = ScheduledPlayout::Now() + lead_;
  if (auto reason = first_->StartAt(start)) {
    return reason;
  }
  if (auto reason = second_->StartAt(start + skew_)) {
    first_->Stop();
    return "--twin: " + *reason;
  }
  return std::nullopt;
}

// Where one has ended too early, the other one is to end as well.
Feeder::Sink TwinPlaying::Sink() {
  const Feeder::Sink first = first_->Sink();
  if (second_ == nullptr) {
    return first;
  }
  const Feeder::Sink second = second_->Sink();
  const auto end = [first, second] {
    first.terminate();
    second.terminate();
  };
  const auto write = [first, second, end](const void* data, std::uint16_t units) {
    const bool taken = first.write(data, units) == 0 && second.write(data, units) == 0;
    if (!taken) {
      end();
    }
    return taken ? 0 : IPPLAYOUT_FAILED;
  };
  Feeder::Sink both{.write = write, .terminate = end, .wants_datagrams = first.wants_datagrams};
  if (first.arrived) {  // both are of one kind
    both.arrived = [first, second](const std::optional<Arrival>& arrival) {
      first.arrived(arrival);
      second.arrived(arrival);
    };
    both.follow = [first, second](std::uint16_t pid) {
      first.follow(pid);
      second.follow(pid);
    };
  }
  return both;
}

std::optional<std::string> TwinPlaying::Failed() {
  constexpr std::chrono::seconds kPatience(2);  // they end within moments of each other
  auto reason = first_->FailedWithin(kPatience);
  return reason ? reason : second_->Failed();
}

void TwinPlaying::Pause(bool on) {
  first_->Pause(on);
  second_->Pause(on);
}

std::optional<std::string> TwinPlaying::Order(const Action& action, std::chrono::nanoseconds at,
                                              std::uint64_t number) {
  return (action.of_twin ? second_ : first_)->Order(action, at, number);
}

std::optional<std::string> TwinPlaying::Alter(const Change& change) {
  auto reason = first_->Alter(change);
  return reason ? reason : second_->Retime(change.at, change.speed);
}

std::vector<IpPlayoutDone> TwinPlaying::ReadDone() {
  std::vector<IpPlayoutDone> done = first_->ReadDone();
  const std::vector<IpPlayoutDone> of_second = second_->ReadDone();
  done.insert(done.end(), of_second.begin(), of_second.end());
  return done;
}

IpPlayoutFaultCounts TwinPlaying::Faults() const {
  IpPlayoutFaultCounts faults = first_->Faults();
  faults.Waiting += second_->Faults().Waiting;
  return faults;
}

std::optional<PathState> TwinPlaying::Twin() const {
  return PathState{second_->Counters(), second_->Timing()};
}

std::optional<std::string> TwinPlaying::Stop() {
  auto reason = first_->Stop();
  auto of_second = second_->Stop();
  return reason ? reason : of_second;
}

}  // namespace ipplay
