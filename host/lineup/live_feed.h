// SPDX-License-Identifier: MIT
// Writes an input that comes at its own pace into the playout of a channel, by its PCRs, and
// follows its clock.
#pragma once

#include <chrono>
#include <memory>

#include "host/library/scheduled_playout.h"
#include "host/play/feeder.h"
#include "host/play/marked_writer.h"
#include "host/play/play_plan.h"
#include "host/stream/round_reader.h"

namespace ipplay {

class LiveFeed {
 public:
  // The plan has a lead; the playout is configured.
  LiveFeed(std::unique_ptr<RoundReader> reader, const PlayPlan& plan, ScheduledPlayout& playout);

  // When the playout is to start; soon. Before Begin().
  std::chrono::nanoseconds NextStart() { return writer_.FollowFromNow(lead_); }
  // The playout has been started: writes on a thread of its own.
  void Begin() { feeder_.Start(); }
  // The input and the playout have been stopped.
  void Join() { feeder_.Join(); }

  // For any thread: errno of a failed read, or 0.
  int ReadError() const { return feeder_.ReadError(); }

 private:
  const std::chrono::nanoseconds lead_;
  MarkedWriter writer_;
  Feeder feeder_;
};

}  // namespace ipplay
