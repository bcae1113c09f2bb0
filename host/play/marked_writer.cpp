// SPDX-License-Identifier: MIT
#include "host/play/marked_writer.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>

#include "host/base/wall_clock.h"
#include "ipplayout/playouts.h"

namespace ipplay {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// At 100 Mb/s this is more than half a second.
constexpr std::size_t kMostHeld = std::size_t{8} << 20;
// By which frames are built before they leave.
constexpr milliseconds kBuiltAhead(60);

}  // namespace

void MarkedWriter::Follow(Time start, Time lead) {
  following_.emplace(Following{.follower = ClockFollower(lead), .start = start});
}

// What was read ahead is there, and frames take a moment to be built.
MarkedWriter::Time MarkedWriter::FollowFromNow(Time lead) {
  const Time start = ScheduledPlayout::Now() + milliseconds(50);
  Follow(start, lead);
  return start;
}

Feeder::Sink MarkedWriter::Sink() {
  return {.write = WordWriter::Into(
              [this](std::span<const std::uint8_t> bytes) { return Write(bytes); }),
          .terminate = [this] { Finish(); },
          .arrived = [this](const std::optional<Arrival>& arrival) { Arrived(arrival); },
          .follow = [this](std::uint16_t pid) { FollowPid(pid); },
          .idle = {.due = [this] { return HasToGoAt(); }, .run = [this] { WriteWhatHasToGo(); }},
          .wants_datagrams = WantsDatagrams()};
}

void MarkedWriter::Arrived(const std::optional<Arrival>& arrival) {
  if (auto* capture = std::get_if<CaptureClock>(&clock_); capture != nullptr && arrival) {
    PlaceDatagram(*capture, *arrival);
  }
  if (!following_) {
    return;
  }
  following_->knows_arrivals = arrival.has_value();
  following_->arrival =
      arrival ? Time(arrival->time_ns) - WallClockOffset() : ScheduledPlayout::Now();
}

void MarkedWriter::FollowPid(std::uint16_t pid) {
  if (auto* marks = std::get_if<PcrMarks>(&clock_)) {
    marks->Follow(pid);
  }
}

void MarkedWriter::PlaceDatagram(CaptureClock& capture, const Arrival& arrival) {
  const Time time = capture.marks.Add(arrival);
  if (arrival.missing > 0 && capture.datagram_bytes > 0) {
    AddMissing(arrival.missing, capture.datagram_bytes, time);
  }
  playout_.Mark(written_ + held_.size(), time);
  placed_ = held_.size();
  last_datagram_ = time;
}

// They are written, at even distances, and lost on the way.
void MarkedWriter::AddMissing(std::size_t count, std::size_t bytes, Time until) {
  const auto places = static_cast<std::int64_t>(count) + 1;
  const Time since = last_datagram_;
  for (std::int64_t place = 1; place < places; ++place) {
    const Time time = since + (until - since) / places * place;
    if (place == 1) {
      playout_.Order(
          {kMissing, IPPLAYOUT_DID_LOSE, static_cast<std::uint32_t>(count), 0, 0, time.count(), 0});
    }
    playout_.Mark(written_ + held_.size(), time);
    for (std::size_t at = 0; at < bytes; at += format_.packet_bytes) {
      held_.resize(held_.size() + format_.packet_bytes, 0xFF);
      ts_pad(held_.data() + held_.size() - format_.packet_bytes + format_.SyncOffset());
    }
  }
  looked_at_ = held_.size();
}

bool MarkedWriter::Write(std::span<const std::uint8_t> bytes) {
  held_.insert(held_.end(), bytes.begin(), bytes.end());
  if (WantsDatagrams()) {
    looked_at_ = held_.size();
    return WriteUpTo(placed_);
  }
  auto& marks = std::get<PcrMarks>(clock_);
  const std::size_t unit = format_.packet_bytes;
  std::size_t known = 0;  // before the last mark
  while (looked_at_ + unit <= held_.size()) {
    if (const auto time = marks.Add(held_.data() + looked_at_ + format_.SyncOffset())) {
      Place(looked_at_, *time);
      known = looked_at_;
    }
    looked_at_ += unit;
  }
  if (held_.size() > kMostHeld || HasToGo()) {
    known = looked_at_;
  }
  return WriteUpTo(known);
}

// A mark that is refused, at a clock that stands still, leaves the line before it.
void MarkedWriter::Place(std::size_t position, Time time) {
  if (!following_) {
    playout_.Mark(written_ + position, time);
    return;
  }
  Following& f = *following_;
  const Time place = f.follower.Map(time);
  playout_.Mark(written_ + position, place);
  if (f.arrival - f.asked >= seconds(1)) {
    f.asked = f.arrival;
    f.shift = Time(playout_.Timing().ShiftNs);
  }
  f.due = f.start + place + f.shift;
  f.follower.Arrived(f.due, f.arrival);
  followed_ppm_.store(f.follower.Ppm(), std::memory_order_relaxed);
}

// A live stream's next PCR may come too late to wait for.
std::optional<MarkedWriter::Time> MarkedWriter::HasToGoAt() const {
  return following_ && looked_at_ > 0 ? std::optional(following_->due - kBuiltAhead) : std::nullopt;
}

bool MarkedWriter::HasToGo() const {
  const auto at = HasToGoAt();
  return at && ScheduledPlayout::Now() >= *at;
}

// One that has ended takes no more, which the next write says.
void MarkedWriter::WriteWhatHasToGo() {
  if (HasToGo()) {
    WriteUpTo(looked_at_);
  }
}

bool MarkedWriter::WriteUpTo(std::size_t end) {
  if (end == 0) {
    return true;
  }
  const std::span<const std::uint8_t> clean = std::span(held_).first(end);
  const auto bytes = faults_ != nullptr ? faults_->Run(clean) : clean;
  auto taken = playout_.TryWrite(bytes);
  if (taken && *taken < end) {
    // What knows its arrivals waits elsewhere, and loses no time.
    if (following_ && !following_->knows_arrivals) {
      following_->follower.HeldUp();
    }
    taken = playout_.Write(bytes.subspan(*taken)) ? std::optional(end) : std::nullopt;
  }
  held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(end));
  looked_at_ -= std::min(looked_at_, end);
  placed_ -= std::min(placed_, end);
  written_ += end;
  return taken.has_value();
}

void MarkedWriter::Finish() {
  WriteUpTo(held_.size());
  playout_.End();
}

}  // namespace ipplay
