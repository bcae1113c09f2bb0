// SPDX-License-Identifier: MIT
#include "host/lineup/engine.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "host/base/wall_clock.h"
#include "host/lineup/channel_run.h"
#include "host/lineup/keeper.h"

namespace ipplay {
namespace {

// From the moment when all are ready to a common start, for the library to build their first
// frames.
constexpr auto kToCommonStart = std::chrono::milliseconds(100);
constexpr auto kMoreForEach = std::chrono::milliseconds(2);

}  // namespace

Engine::Engine(std::vector<Adapter> adapters, OnChannelEvent on_event)
    : adapters_(std::move(adapters)),
      on_event_(std::move(on_event)),
      keeper_(std::make_unique<Keeper>(adapters_)) {}

Engine::~Engine() {
  for (const auto& channel : List()) {
    channel->Retire();
  }
}

Result<std::shared_ptr<Channel>> Engine::Add(const ChannelOrder& order) {
  if (order.name.empty()) {
    return UsageFailure("name: empty; give the channel a name");
  }
  auto parsed = ParseChannelOptions(order.options);
  if (auto* wrong = std::get_if<std::vector<std::string>>(&parsed)) {
    const std::string first = wrong->front();
    return Failure{ExitStatus::kUsage, fmt::format("{}: {}", order.name, first), std::move(*wrong)};
  }
  auto channel = std::make_shared<Channel>(order, std::get<PlayOptions>(std::move(parsed)),
                                           *keeper_, on_event_);
  const std::lock_guard lock(mutex_);
  if (std::ranges::any_of(channels_,
                          [&](const auto& other) { return other->Order().name == order.name; })) {
    return UsageFailure(
        fmt::format("name: {} is taken; give each channel a name of its own", order.name));
  }
  channels_.push_back(channel);
  return channel;
}

std::shared_ptr<Channel> Engine::Find(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find_if(
      channels_, [&name](const auto& channel) { return channel->Order().name == name; });
  return found == channels_.end() ? nullptr : *found;
}

std::optional<Failure> Engine::Remove(const std::string& name) {
  const auto channel = Find(name);
  if (!channel) {
    return UsageFailure(fmt::format("{}: no such channel", name));
  }
  channel->Retire();
  const std::lock_guard lock(mutex_);
  std::erase(channels_, channel);
  return std::nullopt;
}

std::vector<std::shared_ptr<Channel>> Engine::List() const {
  const std::lock_guard lock(mutex_);
  return channels_;
}

std::vector<std::pair<std::string, Failure>> Engine::Start(
    std::span<const std::shared_ptr<Channel>> channels, std::optional<Time> at) {
  return keeper_->Do([&] {
    std::vector<std::pair<std::string, Failure>> failed;
    std::vector<std::shared_ptr<Channel>> ready;
    std::vector<ScheduledPlayout*> files;
    for (const auto& channel : channels) {
      const bool waits = channel->WaitsForInput();
      if (const auto failure = waits ? channel->AwaitInput() : channel->MakeReady()) {
        failed.emplace_back(channel->Order().name, *failure);
      } else if (!waits) {
        ready.push_back(channel);
        files.push_back(&channel->run_->Playout());
      }
    }
    const Time begin =
        at.value_or(ScheduledPlayout::Now() + kToCommonStart + kMoreForEach * ready.size());
    // All or none; where one is refused, each is on its own, at the same time.
    const bool together = !files.empty() && !ScheduledPlayout::Start(files, begin);
    for (const auto& channel : ready) {
      const auto failure = together ? std::nullopt : channel->run_->Playout().Start(begin);
      channel->Launched(failure, begin);
      if (failure) {
        failed.emplace_back(channel->Order().name, channel->Named(*failure));
      }
    }
    return failed;
  });
}

std::vector<std::pair<std::string, Failure>> Engine::StartAsOrdered(
    std::span<const std::shared_ptr<Channel>> channels) {
  std::map<std::optional<Time>, std::vector<std::shared_ptr<Channel>>> groups;
  for (const auto& channel : channels) {
    groups[channel->Order().start_at].push_back(channel);
  }
  std::vector<std::pair<std::string, Failure>> failed;
  for (const auto& [start_at, group] : groups) {
    const auto failed_here =
        Start(group, start_at ? std::optional(FromWallClock(*start_at)) : std::nullopt);
    failed.insert(failed.end(), failed_here.begin(), failed_here.end());
  }
  return failed;
}

Channel::Time FromWallClock(Channel::Time since_1970) {
  return std::max(since_1970 - WallClockOffset(), ScheduledPlayout::Now());
}

void Engine::OnStartingThread(const std::function<void()>& task) {
  keeper_->Do([&task] { task(); });
}

void Engine::Stop(std::span<const std::shared_ptr<Channel>> channels) {
  std::vector<std::thread> stops;
  constexpr std::size_t kAtATime = 16;
  for (std::size_t i = 0; i < channels.size(); ++i) {
    stops.emplace_back([channel = channels[i]] { channel->Stop(); });
    if (stops.size() == kAtATime || i + 1 == channels.size()) {
      for (std::thread& stop : stops) {
        stop.join();
      }
      stops.clear();
    }
  }
}

}  // namespace ipplay
