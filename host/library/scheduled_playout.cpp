// SPDX-License-Identifier: MIT
#include "host/library/scheduled_playout.h"

#include <vector>

namespace ipplay {
namespace {

ExitStatus StatusOf(int code) {
  return code == IPPLAYOUT_BAD_VALUE ? ExitStatus::kUsage : ExitStatus::kFailed;
}

std::optional<Failure> Refusal(int code) {
  if (code == IPPLAYOUT_DONE) {
    return std::nullopt;
  }
  return Failure{StatusOf(code), IpPlayoutError()};
}

constexpr std::int64_t kWithoutLimit = -1;

}  // namespace

IpPlayoutSettings ScheduledPlayout::Defaults() {
  IpPlayoutSettings settings{};
  IpPlayoutDefaults(&settings);
  return settings;
}

Result<ScheduledPlayout> ScheduledPlayout::Open() {
  ScheduledPlayout opened(IpPlayoutOpen());
  if (opened.playout_ == nullptr) {
    return Failure{ExitStatus::kFailed, "the library cannot open a playout: memory has run out"};
  }
  return opened;
}

std::optional<Failure> ScheduledPlayout::Configure(const IpPlayoutSettings& settings) {
  return Refusal(IpPlayoutConfigure(playout_.get(), &settings));
}

std::optional<Failure> ScheduledPlayout::WriteLedger(const std::string& path) {
  return Refusal(IpPlayoutWriteLedger(playout_.get(), path.c_str()));
}

std::optional<Failure> ScheduledPlayout::Mark(std::uint64_t offset, Time time) {
  return Refusal(IpPlayoutMark(playout_.get(), offset, time.count()));
}

std::optional<Failure> ScheduledPlayout::Start(std::optional<Time> start) {
  ScheduledPlayout* const self = this;
  return Start({&self, 1}, start);
}

std::optional<Failure> ScheduledPlayout::Start(std::span<ScheduledPlayout* const> playouts,
                                               std::optional<Time> start) {
  std::vector<IpPlayout*> handles;
  handles.reserve(playouts.size());
  for (const ScheduledPlayout* playout : playouts) {
    handles.push_back(playout->playout_.get());
  }
  return Refusal(IpPlayoutStart(handles.data(), handles.size(), start.value_or(Time(0)).count()));
}

bool ScheduledPlayout::Write(std::span<const std::uint8_t> bytes) {
  return IpPlayoutWrite(playout_.get(), bytes.data(), bytes.size()) == IPPLAYOUT_DONE;
}

std::optional<std::size_t> ScheduledPlayout::TryWrite(std::span<const std::uint8_t> bytes) {
  std::size_t taken = 0;
  const int code = IpPlayoutTryWrite(playout_.get(), bytes.data(), bytes.size(), &taken);
  return code == IPPLAYOUT_DONE ? std::optional(taken) : std::nullopt;
}

void ScheduledPlayout::End() {
  IpPlayoutEnd(playout_.get());
}

Result<ScheduledPlayout::State> ScheduledPlayout::Wait(std::optional<Time> timeout) {
  switch (const int code =
              IpPlayoutWait(playout_.get(), timeout ? timeout->count() : kWithoutLimit)) {
    case IPPLAYOUT_DONE:
      return State::kPlayed;
    case IPPLAYOUT_ENDED:
      return State::kStopped;
    case IPPLAYOUT_NOT_YET:
      return State::kGoesOn;
    default:
      return *Refusal(code);
  }
}

int ScheduledPlayout::EndDescriptor() const {
  return static_cast<int>(IpPlayoutEndEvent(playout_.get()));
}

std::optional<Failure> ScheduledPlayout::Pause(bool on) {
  return Refusal(IpPlayoutPause(playout_.get(), on ? 1 : 0));
}

std::optional<Failure> ScheduledPlayout::Damage(std::uint32_t what, std::uint32_t datagrams) {
  return Refusal(IpPlayoutDamage(playout_.get(), what, datagrams));
}

std::optional<Failure> ScheduledPlayout::Order(const IpPlayoutOrder& order) {
  return Refusal(IpPlayoutOrderFault(playout_.get(), &order));
}

std::optional<Failure> ScheduledPlayout::Change(const IpPlayoutSettings& settings, double speed,
                                                Time at) {
  return Refusal(IpPlayoutChange(playout_.get(), &settings, speed, at.count()));
}

std::size_t ScheduledPlayout::ReadDone(std::span<IpPlayoutDone> out) {
  std::size_t taken = 0;
  IpPlayoutReadDone(playout_.get(), out.data(), out.size(), &taken);
  return taken;
}

IpPlayoutFaultCounts ScheduledPlayout::Faults() const {
  IpPlayoutFaultCounts counts{};
  IpPlayoutGetFaults(playout_.get(), &counts);
  return counts;
}

std::optional<Failure> ScheduledPlayout::Stop() {
  return Refusal(IpPlayoutStop(playout_.get()));
}

PlayoutStatistics ScheduledPlayout::Statistics() const {
  PlayoutStatistics statistics{};
  IpPlayoutGetStatistics(playout_.get(), &statistics);
  return statistics;
}

IpPlayoutTiming ScheduledPlayout::Timing() const {
  IpPlayoutTiming timing{};
  if (IpPlayoutGetTiming(playout_.get(), &timing) != IPPLAYOUT_DONE) {
    timing.LatenessP50Ns = timing.LatenessP99Ns = timing.LatenessP999Ns = timing.LatenessMaxNs = -1;
    timing.FirstDepartureNs = timing.LastDepartureNs = timing.LongestGapNs = -1;
    timing.StampP50Ns = timing.StampP99Ns = timing.StampP999Ns = timing.StampMaxNs = -1;
  }
  return timing;
}

ScheduledPlayout::Lateness ScheduledPlayout::LatenessUpTo(Time bound) const {
  Lateness lateness;
  IpPlayoutGetLateness(playout_.get(), bound.count(), &lateness.frames, &lateness.sum_ns);
  return lateness;
}

std::uint64_t ScheduledPlayout::Seed() const {
  return IpPlayoutSeed(playout_.get());
}

std::size_t ScheduledPlayout::ReadLedger(std::span<IpPlayoutRecord> out) {
  std::size_t taken = 0;
  IpPlayoutReadLedger(playout_.get(), out.data(), out.size(), &taken);
  return taken;
}

}  // namespace ipplay
