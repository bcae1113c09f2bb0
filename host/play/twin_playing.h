// SPDX-License-Identifier: MIT
// Two playouts that send the same RTP on two paths (SMPTE ST 2022-7), the second one later.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/play/playing.h"
#include "host/play/scheduled_playing.h"

namespace ipplay {

class TwinPlaying final : public Playing {
 public:
  // Without `second`, where memory has run out, it does not start. Both begin `lead` after the
  // start, by when there is data; the second one `skew` later.
  TwinPlaying(std::unique_ptr<ScheduledPlaying> first, std::unique_ptr<ScheduledPlaying> second,
              std::chrono::nanoseconds lead, std::chrono::nanoseconds skew);

  std::optional<std::string> Start() override;
  Feeder::Sink Sink() override;
  // The second one ends last.
  int EndDescriptor() const override { return second_->EndDescriptor(); }
  std::optional<std::string> Failed() override;
  void Pause(bool on) override;
  bool TakesTimes() const override { return true; }
  std::optional<std::string> Order(const Action& action, std::chrono::nanoseconds at,
                                   std::uint64_t number) override;
  // The speed is that of both paths, the rest is the first one's.
  std::optional<std::string> Alter(const Change& change) override;
  std::chrono::nanoseconds Position() const override { return first_->Position(); }
  std::vector<IpPlayoutDone> ReadDone() override;
  // Of the first path; what waits is of both.
  IpPlayoutFaultCounts Faults() const override;
  // Of the first one.
  PlayoutStatistics Counters() const override { return first_->Counters(); }
  std::optional<IpPlayoutTiming> Timing() const override { return first_->Timing(); }
  std::optional<PathState> Twin() const override;
  std::optional<std::string> Stop() override;

 private:
  const std::unique_ptr<ScheduledPlaying> first_;
  const std::unique_ptr<ScheduledPlaying> second_;
  const std::chrono::nanoseconds lead_;
  const std::chrono::nanoseconds skew_;
};

}  // namespace ipplay
