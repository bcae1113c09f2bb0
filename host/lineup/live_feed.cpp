// SPDX-License-Identifier: MIT
#include "host/lineup/live_feed.h"

#include <utility>

#include "host/stream/stream_editor.h"

namespace ipplay {

LiveFeed::LiveFeed(std::unique_ptr<RoundReader> reader, const PlayPlan& plan,
                   ScheduledPlayout& playout)
    : lead_(*plan.lead),
      writer_(playout, StreamEditor::Format(reader->Format(), plan.edits),
              PcrMarks(plan.pcr_rate->pid, plan.pcr_rate->packets_per_second, 1), nullptr),
      feeder_(std::move(reader), plan.edits, plan.rounds.Streams(), writer_.Sink()) {
  playout.Mark(0, std::chrono::nanoseconds(0));
}

}  // namespace ipplay
