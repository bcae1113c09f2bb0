// SPDX-License-Identifier: MIT
#include "host/lineup/keeper.h"

#include <utility>

#include "host/base/capabilities.h"
#include "host/base/stop_signals.h"
#include "host/library/scheduled_playout.h"

namespace ipplay {
namespace {

// Some half a second is written ahead.
constexpr auto kFeedingInterval = std::chrono::milliseconds(100);

}  // namespace

template <typename Entry>
void Keeper::Schedule<Entry>::Add(Time time, Entry entry) {
  {
    const std::lock_guard lock(mutex);
    entries.emplace(time, std::move(entry));
  }
  changed.notify_one();
}

template <typename Entry>
std::optional<Entry> Keeper::Schedule<Entry>::Take() {
  std::unique_lock lock(mutex);
  while (!ends) {
    if (entries.empty()) {
      changed.wait(lock);
      continue;
    }
    const Time time = entries.begin()->first;
    if (time <= ScheduledPlayout::Now()) {
      return std::move(entries.extract(entries.begin()).mapped());
    }
    changed.wait_until(lock, std::chrono::steady_clock::time_point(time));
  }
  return std::nullopt;
}

template <typename Entry>
void Keeper::Schedule<Entry>::End() {
  {
    const std::lock_guard lock(mutex);
    ends = true;
  }
  changed.notify_one();
}

Keeper::Keeper(const std::vector<Adapter>& adapters) : adapters_(adapters) {
  const StopSignals::HeldBack signals;
  starting_ = std::thread(&Keeper::RunStarting, this);
  feeding_ = std::thread(&Keeper::RunFeeding, this);
}

Keeper::~Keeper() {
  tasks_.End();
  starting_.join();
  fed_.End();
  feeding_.join();
}

void Keeper::At(Time time, std::function<void()> task) {
  tasks_.Add(time, std::move(task));
}

void Keeper::Feed(std::function<bool()> serve) {
  fed_.Add(ScheduledPlayout::Now(), std::move(serve));
}

void Keeper::RunStarting() {
  // The library opens the adapter and sets its threads' scheduling class; root reads files of all.
  KeepCapabilities({kCapNetRaw, kCapSysNice, kCapDacOverride});
  while (const auto task = tasks_.Take()) {
    (*task)();
  }
}

void Keeper::RunFeeding() {
  KeepCapabilities({});
  while (auto serve = fed_.Take()) {
    if ((*serve)()) {
      fed_.Add(ScheduledPlayout::Now() + kFeedingInterval, *std::move(serve));
    }
  }
}

}  // namespace ipplay
