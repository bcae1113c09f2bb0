// SPDX-License-Identifier: MIT
// What can be changed of a playout while it plays: its rate, its jitter, and its errors.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"

namespace ipplay {

// "rate", "jitter" or "errors", with options by name and values as on the command line.
struct ChangeRequest {
  std::string what;
  std::vector<std::pair<std::string, std::string>> fields;
};

// Whether `what` is one of them.
bool IsChange(std::string_view what);

// "rate bitrate 5M", for people.
std::string Describe(const ChangeRequest& request);

// As the library takes it: all that can change.
struct Change {
  std::chrono::nanoseconds at{0};  // of the schedule
  double speed = 1;                // relative to the plan
  ErrorInsertion errors{};
  IpPlayoutFaults faults{};
  ParametricSettings shape{};
};

// The options that hold now.
class Changes {
 public:
  // Both outlive this.
  Changes(const PlayOptions& options, const PlayPlan& plan)
      : options_(options), plan_(plan), now_(options) {}

  // The options with what is asked for, or which value is refused and what to give.
  Result<PlayOptions> With(const ChangeRequest& request) const;
  Change Of(const PlayOptions& changed) const;
  void Take(const PlayOptions& changed) { now_ = changed; }

  // Bit/s of the transport stream.
  double RateOf(const PlayOptions& changed) const;
  // How long before it holds a change is ordered, so that no target has built the datagrams.
  std::chrono::nanoseconds Lead() const;

 private:
  std::optional<Failure> CheckRate(const PlayOptions& changed, const ChangeRequest& request) const;

  const PlayOptions& options_;
  const PlayPlan& plan_;
  PlayOptions now_;
};

}  // namespace ipplay
