// SPDX-License-Identifier: MIT
// The indicators of ETSI TR 101 290, 5.2, that a stream shows as it arrives.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "host/measure/figures/event.h"

namespace ipplay::measure {

enum class Indicator : std::uint8_t {
  kSyncLoss,
  kSyncByte,
  kPat,
  kContinuity,
  kPmt,
  kPid,
  kTransport,
  kCrc,
  kPcrRepetition,
  kPcrDiscontinuity,
  kPcrAccuracy,
  kPts,
  kCat,
  kNit,
  kSiRepetition,
  kUnreferencedPid,
  kSdt,
  kEit,
  kRst,
  kTdt,
};
inline constexpr std::size_t kIndicators = 20;

struct IndicatorInfo {
  const char* clause;  // of TR 101 290, 5.2
  int priority;        // 1 to 3
  const char* name;    // as in JSON
  const char* limit;   // in words
  EventKind event;
};
const IndicatorInfo& InfoOf(Indicator indicator);

struct IndicatorState {
  bool measured = false;  // there was something to judge
  std::uint64_t count = 0;
  std::int64_t last_ns = 0;  // of the last error
};

// Counts errors, and reports each as an event.
class IndicatorLog {
 public:
  // Null: errors are counted only. `stream` goes into the events.
  void ReportTo(EventSink* sink, std::uint32_t stream) {
    sink_ = sink;
    stream_ = stream;
  }

  struct Error {
    std::int64_t time_ns = 0;
    std::uint16_t pid = Event::kNoPid;
    std::int64_t amount = 0;  // as EventKind says
    std::int32_t detail = 0;
  };
  void Count(Indicator indicator, const Error& error);
  // Once judged, an indicator counts as measured, also without an error.
  void Measure(Indicator indicator) { At(indicator).measured = true; }

  const IndicatorState& operator[](Indicator indicator) const {
    return states_[static_cast<std::size_t>(indicator)];
  }
  // Over the indicators of a priority, except accuracy, which a variable bit rate has no use for.
  std::uint64_t Sum(int priority) const;

 private:
  IndicatorState& At(Indicator indicator) { return states_[static_cast<std::size_t>(indicator)]; }

  std::array<IndicatorState, kIndicators> states_{};
  EventSink* sink_ = nullptr;
  std::uint32_t stream_ = Event::kNoStream;
};

}  // namespace ipplay::measure
