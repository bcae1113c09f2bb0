// SPDX-License-Identifier: MIT
#include "host/lineup/channel_feed.h"

#include <algorithm>
#include <cmath>

namespace ipplay {
namespace {

constexpr double kAheadSeconds = 0.5;
constexpr std::uint64_t kLeastAheadDatagrams = 16;
constexpr std::uint64_t kMostAhead = 64 << 20;
constexpr double kStepSeconds = 0.02;
// What is held back at most until a PCR says when it leaves.
constexpr std::uint64_t kMostHeld = 8 << 20;

double BytesPerSecond(const PlayPlan& plan) {
  return plan.rates.PayloadBytesPerSecond(plan.sizes);
}

}  // namespace

std::uint64_t ChannelFeed::AheadBytes(const PlayPlan& plan) {
  double rate = BytesPerSecond(plan);
  if (plan.pcr_rate && plan.pcr_rate->packets_per_second > 0) {
    rate *= std::max(1.0, plan.pcr_rate->highest / plan.pcr_rate->packets_per_second);
  }
  const auto bytes = static_cast<std::uint64_t>(std::min(rate * kAheadSeconds, 1e12));
  return std::clamp(std::max(bytes, kLeastAheadDatagrams * plan.sizes.payload_bytes),
                    std::uint64_t{1}, kMostAhead);
}

ChannelFeed::ChannelFeed(std::unique_ptr<RoundReader> reader, const PlayPlan& plan, double ppm,
                         ScheduledPlayout& playout, std::chrono::nanoseconds phase)
    : reader_(std::move(reader)),
      editor_(reader_->Format(), plan.edits),
      rounds_(plan.rounds.count),
      format_(StreamEditor::Format(reader_->Format(), plan.edits)),
      payload_bytes_(plan.sizes.payload_bytes),
      bytes_per_ns_(BytesPerSecond(plan) / (1 + ppm / 1e6) / 1e9),
      step_(std::max<std::uint64_t>(
          static_cast<std::uint64_t>(std::min(bytes_per_ns_ * 1e9 * kStepSeconds, 1e9)),
          payload_bytes_)),
      ahead_(AheadBytes(plan)),
      playout_(playout),
      speed_(1 + ppm / 1e6),
      leaves_ns_(static_cast<double>(phase.count())) {
  if (plan.pcr_rate) {
    marks_.emplace(plan.pcr_rate->pid, plan.pcr_rate->packets_per_second, plan.speed);
  }
  playout_.Mark(0, phase);
}

void ChannelFeed::Append(std::span<const std::uint8_t> bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

// False at the end of all rounds.
bool ChannelFeed::ReadMore() {
  const auto append = [this](StreamEditor::Bytes bytes) {
    Append(bytes);
    return true;
  };
  if (const auto packets = reader_->Next(); !packets.empty()) {
    round_bytes_ += packets.size();
    editor_.Run(packets, append);
    return true;
  }
  read_error_.store(reader_->ReadError(), std::memory_order_relaxed);
  editor_.EndRound(append);
  const bool goes_on =
      reader_->ReadError() == 0 && round_bytes_ > 0 && (!rounds_ || round_ < *rounds_);
  round_bytes_ = 0;
  if (!goes_on) {
    editor_.Finish(append);
    return false;
  }
  ++round_;
  reader_->StartNextRound();
  editor_.StartNextRound();
  return true;
}

void ChannelFeed::AddPcrPoints() {
  const std::uint64_t unit = format_.packet_bytes;
  while (looked_at_ + unit <= End()) {
    const auto time = marks_->Add(buffer_.data() + (looked_at_ - base_) + format_.SyncOffset());
    if (time && looked_at_ > pointed_) {
      points_.push_back({looked_at_, static_cast<double>(time->count())});
      pointed_ = looked_at_;
    }
    looked_at_ += unit;
  }
  if (looked_at_ - pointed_ > kMostHeld) {
    points_.push_back({looked_at_, std::nullopt});
    pointed_ = looked_at_;
  }
}

// The last one is at the end of what was read: what comes live does not wait.
void ChannelFeed::AddEvenPoints() {
  while (pointed_ < End()) {
    pointed_ = std::min(pointed_ + step_, End());
    points_.push_back({pointed_, static_cast<double>(pointed_) / bytes_per_ns_});
  }
}

// Reads until there is a point, or the data has ended.
bool ChannelFeed::Refill() {
  const auto done = static_cast<std::ptrdiff_t>(written_ - base_);
  buffer_.erase(buffer_.begin(), buffer_.begin() + done);
  base_ = written_;
  while (points_.empty() && !at_end_) {
    at_end_ = !ReadMore();
    if (marks_) {
      AddPcrPoints();
    } else {
      AddEvenPoints();
    }
  }
  if (points_.empty() && pointed_ < End()) {
    points_.push_back({End(), std::nullopt});
    pointed_ = End();
  }
  return !points_.empty();
}

// False at the end of the data.
bool ChannelFeed::PlaceMark() {
  if (points_.empty() && !Refill()) {
    return false;
  }
  const Point point = points_.front();
  points_.pop_front();
  if (point.time_ns) {
    leaves_ns_ += (*point.time_ns - stream_ns_) / speed_.load(std::memory_order_relaxed);
    stream_ns_ = *point.time_ns;
    // A mark that is refused, at a clock that stands still, leaves the line before it.
    playout_.Mark(point.offset, std::chrono::nanoseconds(std::llround(leaves_ns_)));
  }
  marked_ = point.offset;
  return true;
}

std::uint64_t ChannelFeed::Room() const {
  const std::uint64_t left = playout_.Statistics().DatagramsSent * payload_bytes_;
  const std::uint64_t waiting = written_ - std::min(left, written_);
  return ahead_ - std::min(ahead_, waiting);
}

std::span<const std::uint8_t> ChannelFeed::Slice(std::uint64_t most) const {
  const std::uint64_t length = std::min(most, marked_ - written_);
  return std::span(buffer_).subspan(written_ - base_, length);
}

ChannelFeed::Outcome ChannelFeed::Fill() {
  if (declared_) {
    return Outcome::kDone;
  }
  std::uint64_t room = Room();
  while (room > 0) {
    if (written_ == marked_ && !PlaceMark()) {
      playout_.End();
      declared_ = true;
      return Outcome::kDone;
    }
    const auto slice = Slice(room);
    const auto taken = playout_.TryWrite(slice);
    if (!taken) {
      return Outcome::kRefused;
    }
    written_ += *taken;
    room -= *taken;
    if (*taken < slice.size()) {
      break;
    }
  }
  return Outcome::kFull;
}

void ChannelFeed::WriteAll() {
  while (PlaceMark()) {
    const auto slice = Slice(marked_ - written_);
    if (!playout_.Write(slice)) {
      return;
    }
    written_ += slice.size();
  }
  playout_.End();
}

}  // namespace ipplay
