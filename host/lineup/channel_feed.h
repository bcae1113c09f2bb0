// SPDX-License-Identifier: MIT
// Reads the input of a channel ahead and writes it into its playout, with marks that say when it
// leaves: by the stream's own clock, or evenly at its rate.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/library/scheduled_playout.h"
#include "host/play/play_plan.h"
#include "host/stream/pcr_marks.h"
#include "host/stream/round_reader.h"
#include "host/stream/stream_editor.h"

namespace ipplay {

class ChannelFeed {
 public:
  enum class Outcome {
    kFull,     // as much as needed is written ahead
    kDone,     // all is written
    kRefused,  // the playout has ended
  };

  // The first byte leaves `phase` after the start. `speed` is relative to the plan without --ppm.
  ChannelFeed(std::unique_ptr<RoundReader> reader, const PlayPlan& plan, double ppm,
              ScheduledPlayout& playout, std::chrono::nanoseconds phase);
  ChannelFeed(const ChannelFeed&) = delete;
  ChannelFeed& operator=(const ChannelFeed&) = delete;

  // How much is to be written ahead, and the size of the ring that holds it.
  static std::uint64_t AheadBytes(const PlayPlan& plan);

  // Writes ahead as much as needed; reads a file and never waits for the playout.
  Outcome Fill();
  // The same to the end of the data, waiting for the input and for the playout.
  void WriteAll();

  // For any thread. What is marked from now on leaves at this speed.
  void SetSpeed(double speed) { speed_.store(speed, std::memory_order_relaxed); }
  // errno of a failed read, or 0.
  int ReadError() const { return read_error_.load(std::memory_order_relaxed); }

 private:
  // "The byte at this offset leaves at this time", in the time of the stream.
  struct Point {
    std::uint64_t offset = 0;
    std::optional<double> time_ns;  // none: as the line before it goes on
  };

  bool Refill();
  bool ReadMore();
  void Append(std::span<const std::uint8_t> bytes);
  void AddPcrPoints();
  void AddEvenPoints();
  bool PlaceMark();
  std::uint64_t Room() const;
  std::span<const std::uint8_t> Slice(std::uint64_t most) const;
  std::uint64_t End() const { return base_ + buffer_.size(); }

  std::unique_ptr<RoundReader> reader_;
  StreamEditor editor_;
  std::optional<PcrMarks> marks_;
  const std::optional<std::uint64_t> rounds_;
  const PacketFormat format_;
  const std::uint64_t payload_bytes_;
  const double bytes_per_ns_;  // without PCRs
  const std::uint64_t step_;   // bytes between even points
  const std::uint64_t ahead_;
  ScheduledPlayout& playout_;
  std::atomic<double> speed_;
  std::atomic<int> read_error_{0};

  std::vector<std::uint8_t> buffer_;  // that was not written yet, and some that was
  std::uint64_t base_ = 0;            // offset of the buffer in all that is written
  std::uint64_t written_ = 0;
  std::uint64_t marked_ = 0;     // up to here it may be written
  std::uint64_t looked_at_ = 0;  // by AddPcrPoints
  std::uint64_t pointed_ = 0;    // offset of the last point
  std::deque<Point> points_;
  double stream_ns_ = 0;  // of the last mark, in the time of the stream
  double leaves_ns_;      // and when it leaves
  std::uint64_t round_ = 1;
  std::uint64_t round_bytes_ = 0;
  bool at_end_ = false;
  bool declared_ = false;
};

}  // namespace ipplay
