// SPDX-License-Identifier: MIT
// A playout with a handle: at its rate, or by marks, whose frames leave when the PCRs say.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/library/scheduled_playout.h"
#include "host/play/marked_writer.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"
#include "host/play/playing.h"
#include "host/stream/packet_format.h"
#include "host/stream/stream_faults.h"

namespace ipplay {

class ScheduledPlaying final : public Playing {
 public:
  // `options` and `plan` outlive this. With `clock` it says when what is written leaves.
  ScheduledPlaying(const PlayOptions& options, const PlayPlan& plan, ScheduledPlayout playout,
                   const std::optional<MarkedWriter::Clock>& clock, PacketFormat format,
                   StreamFaults* faults);

  std::optional<std::string> Start() override;
  Feeder::Sink Sink() override;
  int EndDescriptor() const override { return playout_.EndDescriptor(); }
  std::optional<std::string> Failed() override { return FailedWithin(std::chrono::nanoseconds(0)); }
  void Pause(bool on) override;
  bool TakesTimes() const override { return true; }
  std::optional<std::string> Order(const Action& action, std::chrono::nanoseconds at,
                                   std::uint64_t number) override;
  std::optional<std::string> Alter(const Change& change) override;
  std::chrono::nanoseconds Position() const override;
  std::vector<IpPlayoutDone> ReadDone() override;
  IpPlayoutFaultCounts Faults() const override { return playout_.Faults(); }
  PlayoutStatistics Counters() const override { return playout_.Statistics(); }
  std::optional<std::string> Stop() override;
  std::optional<IpPlayoutTiming> Timing() const override { return playout_.Timing(); }
  std::optional<std::chrono::nanoseconds> StartsAt() const override { return starts_at_; }
  std::optional<double> FollowedPpm() const override;

  // Instead of Start(), with the rights that it needs: its schedule begins at `time`.
  std::optional<std::string> StartAt(ScheduledPlayout::Time time);
  // Only the speed; what was ordered otherwise stays.
  std::optional<std::string> Retime(std::chrono::nanoseconds at, double speed) {
    return Alter(
        {at, speed, plan_.schedule.Errors, plan_.schedule.Faults, plan_.schedule.Parametric});
  }
  // Waits for its end for so long.
  std::optional<std::string> FailedWithin(std::chrono::nanoseconds time);

 private:
  std::optional<std::string> Configure();

  const PlayOptions& options_;
  const PlayPlan& plan_;
  std::optional<std::chrono::nanoseconds> starts_at_;
  ScheduledPlayout playout_;
  std::optional<MarkedWriter> writer_;  // with marks
  std::vector<IpPlayoutOrder> before_start_;
  bool is_configured_ = false;
  std::optional<std::chrono::nanoseconds> held_at_;  // its position, while it is paused
};

}  // namespace ipplay
