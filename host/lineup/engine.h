// SPDX-License-Identifier: MIT
// All channels of a process: one thread feeds them, another one starts them.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/library/adapters.h"
#include "host/lineup/channel.h"

namespace ipplay {

// A time of day as one on CLOCK_MONOTONIC; the present, if it has passed.
Channel::Time FromWallClock(Channel::Time since_1970);

// Any thread may call any function. Channels are started on a thread that inherits, from the thread
// that makes the engine, the rights it needs to open adapters. The maker can drop its own.
class Engine {
 public:
  using Time = Channel::Time;

  // `adapters` are those of a Library that outlives the engine.
  explicit Engine(std::vector<Adapter> adapters, OnChannelEvent on_event = {});
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  // Stops all channels.
  ~Engine();

  // A new channel, not started. Refused where the name is taken or the options are wrong; the
  // details have a line for each mistake.
  Result<std::shared_ptr<Channel>> Add(const ChannelOrder& order);
  // Stops it and forgets it; who holds it can still ask for its status.
  std::optional<Failure> Remove(const std::string& name);
  std::shared_ptr<Channel> Find(const std::string& name) const;  // or null
  // In the order in which they were added.
  std::vector<std::shared_ptr<Channel>> List() const;

  // Starts them at the same moment, `at` or as soon as all are ready. A channel that cannot start
  // does not hold up the others: each has its state, and those that failed come back.
  std::vector<std::pair<std::string, Failure>> Start(
      std::span<const std::shared_ptr<Channel>> channels, std::optional<Time> at = std::nullopt);
  // Each at the time of its order: those with the same time, or with none, start at the same
  // moment.
  std::vector<std::pair<std::string, Failure>> StartAsOrdered(
      std::span<const std::shared_ptr<Channel>> channels);
  // Runs `task` on the thread that starts channels, which has their rights, and waits for it.
  void OnStartingThread(const std::function<void()>& task);
  // All of them; takes as long as the slowest.
  void Stop(std::span<const std::shared_ptr<Channel>> channels);

 private:
  const std::vector<Adapter> adapters_;
  const OnChannelEvent on_event_;
  std::unique_ptr<Keeper> keeper_;
  mutable std::mutex mutex_;  // guards channels_
  std::vector<std::shared_ptr<Channel>> channels_;
};

}  // namespace ipplay
