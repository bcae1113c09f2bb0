// SPDX-License-Identifier: MIT
// The part of a stream from one time to another, by its PCRs.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "host/stream/packet_format.h"

namespace ipplay {

// In 27 MHz ticks since the first PCR. Where the PCRs jump, no time passes.
struct TimeSpan {
  std::uint64_t from = 0;
  std::optional<std::uint64_t> until{};  // none: to the end
};

class TimeWindow {
 public:
  // The clock is that of `pcr_pid`, or else of the first packet with a PCR.
  TimeWindow(PacketFormat format, TimeSpan span, std::optional<std::uint16_t> pcr_pid)
      : format_(format), span_(span), pid_(pcr_pid), inside_(span.from == 0) {}

  // What of the packets lies inside. The first one that does bears the first PCR at or behind
  // `from`, or is the first of all; the last one comes before the PCR at or behind `until`.
  std::span<std::uint8_t> Pass(std::span<std::uint8_t> packets);

  bool HasClock() const { return last_.has_value(); }
  bool HasStarted() const { return inside_ || over_; }
  bool IsOver() const { return over_; }
  std::uint64_t Elapsed() const { return elapsed_; }  // in ticks, at the last PCR

 private:
  void Advance(const std::uint8_t* packet);

  PacketFormat format_;
  TimeSpan span_;
  std::optional<std::uint16_t> pid_;
  std::optional<std::uint64_t> last_;  // PCR
  std::uint64_t elapsed_ = 0;
  bool inside_;
  bool over_ = false;
};

}  // namespace ipplay
