// SPDX-License-Identifier: MIT
// A playout of the library's as a session sees it, whichever of the two interfaces plays it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/play/changes.h"
#include "host/play/feeder.h"
#include "host/play/time_line.h"
#include "ipplayout/playouts.h"

namespace ipplay {

// What has become of one path.
struct PathState {
  PlayoutStatistics counters{};
  std::optional<IpPlayoutTiming> timing;
};

class Playing {
 public:
  virtual ~Playing() = default;

  // Why it cannot start; nothing when it has.
  virtual std::optional<std::string> Start() = 0;
  // What the feeder writes to.
  virtual Feeder::Sink Sink() = 0;
  // Readable once it has ended.
  virtual int EndDescriptor() const = 0;
  // Why it has ended before its end; nothing when it has not. Once it has ended.
  virtual std::optional<std::string> Failed() = 0;
  virtual void Pause(bool on) = 0;
  // Whether orders are carried out at their time, so that they can be given before the start.
  virtual bool TakesTimes() const = 0;
  // Has datagrams damaged, on the second path where the action says so, from `at` or from the next
  // one on. Why it cannot be; else ReadDone says with `number` what was done.
  virtual std::optional<std::string> Order(const Action& action, std::chrono::nanoseconds at,
                                           std::uint64_t number) = 0;
  // Why the run cannot be changed; else it is so from the change's time on.
  virtual std::optional<std::string> Alter(const Change&) {
    return "needs frames that are paced one by one: no --priority, at most 65,536 --copies, and at "
           "least 5 us between frames";
  }
  // How far it is in its schedule.
  virtual std::chrono::nanoseconds Position() const { return std::chrono::nanoseconds(0); }
  // What was done since the last call. Times are below 0 where they are not known.
  virtual std::vector<IpPlayoutDone> ReadDone() = 0;
  virtual IpPlayoutFaultCounts Faults() const = 0;
  virtual PlayoutStatistics Counters() const = 0;
  // Releases a feeder that is blocked. What could not be written whole, where that shows now.
  virtual std::optional<std::string> Stop() = 0;
  // When its frames left, where that is recorded.
  virtual std::optional<IpPlayoutTiming> Timing() const { return std::nullopt; }
  // When it starts, on CLOCK_MONOTONIC, where a time was ordered. Once Start() has returned.
  virtual std::optional<std::chrono::nanoseconds> StartsAt() const { return std::nullopt; }
  // By how much the clock of the input is faster, where it is followed.
  virtual std::optional<double> FollowedPpm() const { return std::nullopt; }
  // Of the second path, where there is one.
  virtual std::optional<PathState> Twin() const { return std::nullopt; }
};

}  // namespace ipplay
