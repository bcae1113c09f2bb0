// SPDX-License-Identifier: MIT
#include "host/measure/figures/event_log.h"

#include <algorithm>

namespace ipplay::measure {

void EventLog::Report(const Event& event) {
  if (next_ != nullptr) {
    next_->Report(event);
  }
  Kind& kind = kinds_[static_cast<std::size_t>(event.kind)];
  ++kind.count;
  if (kind.first.size() < kKeptAtEachEnd) {
    kind.first.push_back(event);
  } else if (kind.last.size() < kKeptAtEachEnd) {
    kind.last.push_back(event);
  } else {
    kind.last[(kind.count - 1) % kKeptAtEachEnd] = event;
  }
}

std::uint64_t EventLog::Count() const {
  std::uint64_t count = 0;
  for (const Kind& kind : kinds_) {
    count += kind.count;
  }
  return count;
}

std::uint64_t EventLog::LeftOut() const {
  std::uint64_t left_out = 0;
  for (const Kind& kind : kinds_) {
    left_out += kind.count - kind.first.size() - kind.last.size();
  }
  return left_out;
}

std::vector<Event> EventLog::Kept() const {
  std::vector<Event> kept;
  for (const Kind& kind : kinds_) {
    kept.insert(kept.end(), kind.first.begin(), kind.first.end());
    // The oldest one of a full ring is where the next one would go.
    const auto oldest = kind.last.begin() +
                        static_cast<std::ptrdiff_t>(
                            kind.last.size() == kKeptAtEachEnd ? kind.count % kKeptAtEachEnd : 0);
    kept.insert(kept.end(), oldest, kind.last.end());
    kept.insert(kept.end(), kind.last.begin(), oldest);
  }
  std::ranges::stable_sort(kept, {}, &Event::time_ns);
  return kept;
}

}  // namespace ipplay::measure
