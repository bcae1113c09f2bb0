// SPDX-License-Identifier: MIT
// What is changed in a stream between its input and its playout.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "host/stream/null_filler.h"
#include "host/stream/packet_format.h"
#include "host/stream/restamper.h"

namespace ipplay {

struct EditPlan {
  bool as_188 = false;  // without the time stamps or parity of packets of 192 or 204 bytes
  std::optional<RestampPlan> restamp{};
  std::optional<FillPlan> fill{};
};

class StreamEditor {
 public:
  using Bytes = std::span<const std::uint8_t>;
  // False ends the run.
  using Emit = std::function<bool(Bytes)>;

  // `format` is that of the input.
  StreamEditor(PacketFormat format, const EditPlan& plan);

  // That of what it emits.
  static PacketFormat Format(PacketFormat input, const EditPlan& plan) {
    return plan.as_188 && !input.IsRaw() ? PacketFormat{188} : input;
  }

  // Takes whole packets of the round, and may rewrite them in place.
  bool Run(std::span<std::uint8_t> packets, const Emit& emit);
  // The round has ended, and another one may follow.
  bool EndRound(const Emit& emit);
  void StartNextRound();
  // Of the stream in hand, where several are played in a row.
  std::optional<std::uint16_t> PartPcrPid() const {
    return restamper_ ? restamper_->PartPcrPid() : std::nullopt;
  }
  // The last round has ended.
  bool Finish(const Emit& emit);

  // The longest that a packet has waited where the stream was faster than the rate ordered. For any
  // thread.
  std::chrono::nanoseconds LongestWait() const {
    return filler_ ? filler_->LongestWait() : std::chrono::nanoseconds(0);
  }

 private:
  std::span<std::uint8_t> Shorten(std::span<std::uint8_t> packets) const;
  bool Fill(Bytes packets, const Emit& emit);

  const PacketFormat input_;
  const bool as_188_;
  std::optional<Restamper> restamper_;
  std::optional<NullFiller> filler_;
};

}  // namespace ipplay
