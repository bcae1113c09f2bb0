// SPDX-License-Identifier: MIT
// All playouts that a host has open.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "control/scheduled_playout.h"

namespace ipplayout {

// A handle is a number that is never used again, so that a closed one is known for what it is. A
// playout lives until the last call on it has returned.
class Playouts {
 public:
  using Handle = std::uintptr_t;

  // `sinks` outlive it.
  explicit Playouts(SinkMaker& sinks) : surroundings_(sinks) {}
  Playouts(const Playouts&) = delete;
  Playouts& operator=(const Playouts&) = delete;
  ~Playouts();

  Handle Open();
  // Null when it is not open.
  std::shared_ptr<ScheduledPlayout> Find(Handle handle);
  Failure Close(Handle handle);

  // All or none, at the same moment.
  Failure Start(std::span<const Handle> handles, std::optional<std::chrono::nanoseconds> start);

 private:
  using Group = std::vector<std::shared_ptr<ScheduledPlayout>>;

  Failure FindAll(std::span<const Handle> handles, Group& group);
  // Says in `prepared` how many were, also where it fails.
  static Failure Prepare(const Group& group, std::size_t& prepared,
                         std::optional<std::chrono::nanoseconds> start);
  static Failure AddStreams(const Group& group, std::optional<std::chrono::nanoseconds> start);

  Surroundings surroundings_;  // outlives the playouts
  platform::Mutex mutex_;
  std::map<Handle, std::shared_ptr<ScheduledPlayout>> open_ IPPLAYOUT_GUARDED_BY(mutex_);
  Handle last_handle_ IPPLAYOUT_GUARDED_BY(mutex_) = 0;
};

}  // namespace ipplayout
