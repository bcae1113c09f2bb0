// SPDX-License-Identifier: MIT
// Keeps events in a memory that does not grow: of each kind the first and the last ones, and how
// many there were.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/measure/figures/event.h"

namespace ipplay::measure {

class EventLog : public EventSink {
 public:
  // The first and the last events of each kind, this many of both.
  static constexpr std::size_t kKeptAtEachEnd = 100;

  void Report(const Event& event) override;
  // Every event goes on to `next` as well, before any is left out; null for none. It outlives this.
  void ForwardTo(EventSink* next) { next_ = next; }

  std::uint64_t CountOf(EventKind kind) const { return Of(kind).count; }
  std::uint64_t Count() const;
  // Events that are counted and no longer kept.
  std::uint64_t LeftOut() const;
  // In order of time; those of one time as they were reported.
  std::vector<Event> Kept() const;

 private:
  struct Kind {
    std::uint64_t count = 0;
    std::vector<Event> first;
    std::vector<Event> last;  // a ring; event n is at place n modulo its length
  };

  const Kind& Of(EventKind kind) const { return kinds_[static_cast<std::size_t>(kind)]; }

  std::array<Kind, kEventKinds> kinds_;
  EventSink* next_ = nullptr;
};

}  // namespace ipplay::measure
