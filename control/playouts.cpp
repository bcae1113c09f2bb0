// SPDX-License-Identifier: MIT
#include "control/playouts.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

namespace ipplayout {
namespace {

// Names the one of several that was refused.
Failure OfPlayout(std::size_t place, std::size_t count, Failure failure) {
  if (count > 1) {
    failure.sentence = "playout " + std::to_string(place) + " of 0 to " +
                       std::to_string(count - 1) + ": " + failure.sentence;
  }
  return failure;
}

}  // namespace

Playouts::~Playouts() {
  std::map<Handle, std::shared_ptr<ScheduledPlayout>> open;
  {
    const platform::MutexLock lock(mutex_);
    open.swap(open_);
  }
  for (const auto& [handle, playout] : open) {
    playout->Close();
  }
}

Playouts::Handle Playouts::Open() {
  auto playout = std::make_shared<ScheduledPlayout>(surroundings_);
  const platform::MutexLock lock(mutex_);
  open_.emplace(++last_handle_, std::move(playout));
  return last_handle_;
}

std::shared_ptr<ScheduledPlayout> Playouts::Find(Handle handle) {
  const platform::MutexLock lock(mutex_);
  const auto found = open_.find(handle);
  return found == open_.end() ? nullptr : found->second;
}

Failure Playouts::Close(Handle handle) {
  std::shared_ptr<ScheduledPlayout> playout;
  {
    const platform::MutexLock lock(mutex_);
    const auto found = open_.find(handle);
    if (found == open_.end()) {
      return {IPPLAYOUT_BAD_PLAYOUT, "the playout is not open"};
    }
    playout = std::move(found->second);
    open_.erase(found);
  }
  return playout->Close();
}

Failure Playouts::FindAll(std::span<const Handle> handles, Group& group) {
  for (std::size_t i = 0; i < handles.size(); ++i) {
    std::shared_ptr<ScheduledPlayout> playout = Find(handles[i]);
    if (playout == nullptr) {
      return OfPlayout(i, handles.size(), {IPPLAYOUT_BAD_PLAYOUT, "the playout is not open"});
    }
    if (std::find(group.begin(), group.end(), playout) != group.end()) {
      return OfPlayout(i, handles.size(), {IPPLAYOUT_BAD_VALUE, "the playout is listed twice"});
    }
    group.push_back(std::move(playout));
  }
  return {};
}

Failure Playouts::Start(std::span<const Handle> handles,
                        std::optional<std::chrono::nanoseconds> start) {
  Group group;
  if (Failure failure = FindAll(handles, group)) {
    return failure;
  }
  std::size_t prepared = 0;
  const auto abandon = [&] {
    for (std::size_t i = 0; i < prepared; ++i) {
      group[i]->Abandon();
    }
  };
  try {
    if (Failure failure = Prepare(group, prepared, start)) {
      abandon();
      return failure;
    }
  } catch (const std::exception&) {
    abandon();
    throw;
  }
  for (const auto& playout : group) {
    playout->Launched();
  }
  return {};
}

Failure Playouts::Prepare(const Group& group, std::size_t& prepared,
                          std::optional<std::chrono::nanoseconds> start) {
  for (; prepared < group.size(); ++prepared) {
    if (Failure failure = group[prepared]->Prepare()) {
      return OfPlayout(prepared, group.size(), std::move(failure));
    }
  }
  return AddStreams(group, start);
}

// Those of one transmitter enter its schedule together.
Failure Playouts::AddStreams(const Group& group, std::optional<std::chrono::nanoseconds> start) {
  std::map<ScheduleTransmitter*, std::vector<ScheduledStream*>> streams;
  for (const auto& playout : group) {
    ScheduledRun& run = playout->Prepared();
    streams[&run.Transmitter()].push_back(&run.Stream());
  }
  for (const auto& [transmitter, of_transmitter] : streams) {
    if (!transmitter->Add(of_transmitter, start)) {
      return {IPPLAYOUT_NO_RESOURCES, "the destination has its most playouts, " +
                                          std::to_string(ScheduleTransmitter::kMostStreams) +
                                          "; stop one of them"};
    }
  }
  return {};
}

}  // namespace ipplayout
