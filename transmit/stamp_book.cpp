// SPDX-License-Identifier: MIT
#include "transmit/stamp_book.h"

#include <algorithm>
#include <cmath>

#include "transmit/scheduled_stream.h"

namespace ipplayout {
namespace {

constexpr double kMostStampsPerSecond = 20'000;

}  // namespace

void StampBook::SampleFor(double frames_per_second) {
  every_ = static_cast<std::uint32_t>(
      std::clamp(std::ceil(frames_per_second / kMostStampsPerSecond), 1.0, 1e6));
}

std::uint32_t StampBook::TagFor(ScheduledStream& stream, Time place) {
  if (!stream.rules.wants_stamps || stream.sink.DepartureDescriptor() < 0) {
    return 0;
  }
  if (until_next_ > 0) {
    --until_next_;
    return 0;
  }
  until_next_ = every_ - 1;
  if (std::find(sinks_.begin(), sinks_.end(), &stream.sink) == sinks_.end()) {
    sinks_.push_back(&stream.sink);
  }
  last_tag_ = last_tag_ == UINT32_MAX ? 1 : last_tag_ + 1;
  Entry& entry = entries_[last_tag_ % kMostTags];
  if (entry.stream == nullptr) {
    ++outstanding_;
  }
  entry = {last_tag_, &stream, place, DepartureLedger::kNowhere};
  return last_tag_;
}

void StampBook::EnterRecord(std::uint32_t tag, std::uint64_t record) {
  Entry& entry = entries_[tag % kMostTags];
  if (tag != 0 && entry.tag == tag) {
    entry.record = record;
  }
}

void StampBook::Read() {
  std::array<Departure, 64> departures;
  for (FrameSink* sink : sinks_) {
    std::size_t count = 0;
    do {
      count = sink->ReadDepartures(departures);
      for (std::size_t i = 0; i < count; ++i) {
        Entry& entry = entries_[departures[i].tag % kMostTags];
        if (entry.tag == departures[i].tag && entry.stream != nullptr) {
          entry.stream->timing.Stamped(departures[i].time - entry.place);
          entry.stream->ledger.Stamp(entry.record, departures[i].time);
          entry.stream = nullptr;
          --outstanding_;
        }
      }
    } while (count == departures.size());
  }
}

void StampBook::Withdraw(std::uint32_t tag) {
  Entry& entry = entries_[tag % kMostTags];
  if (tag != 0 && entry.tag == tag && entry.stream != nullptr) {
    entry.stream = nullptr;
    --outstanding_;
  }
}

void StampBook::Forget(const ScheduledStream& stream) {
  bool is_shared = false;
  for (Entry& entry : entries_) {
    if (entry.stream == &stream) {
      entry.stream = nullptr;
      --outstanding_;
    } else if (entry.stream != nullptr && &entry.stream->sink == &stream.sink) {
      is_shared = true;
    }
  }
  // Asked for anew by the streams that are left, if there are any.
  if (!is_shared) {
    std::erase(sinks_, &stream.sink);
  }
}

}  // namespace ipplayout
