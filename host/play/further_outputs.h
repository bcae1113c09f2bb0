// SPDX-License-Identifier: MIT
// The targets of a playout beyond the first: each gets the same stream in headers of its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/play/feeder.h"
#include "host/play/play_options.h"
#include "host/play/playing.h"
#include "host/play/preparation.h"
#include "host/play/status.h"

namespace ipplay {

class FurtherOutputs {
 public:
  // `format` is that of the packets that are played.
  FurtherOutputs(std::vector<Output> outputs, PacketFormat format);

  // Which one cannot start, and why; then none of them plays.
  std::optional<std::string> Start();
  // Writes to all of them what goes to `first`, which alone decides on the end.
  Feeder::Sink With(Feeder::Sink first);
  void Pause(bool on);
  // As for the first output, which alone reports. Which one refuses it, and why.
  std::optional<std::string> Order(const Action& action, std::chrono::nanoseconds at);
  std::optional<std::string> Alter(const Change& change);
  bool Any() const { return !playings_.empty(); }
  // Lets them play out first if the stream has ended; that takes moments.
  void Stop(bool complete);

  std::vector<OutputStatus> Status() const;

 private:
  std::optional<std::string> OfEach(
      const std::function<std::optional<std::string>(Playing&)>& order);

  std::vector<Output> outputs_;  // stays as it is: playings refer to it
  std::vector<std::unique_ptr<Playing>> playings_;
  std::vector<std::optional<std::string>> failures_;
};

}  // namespace ipplay
