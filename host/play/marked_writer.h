// SPDX-License-Identifier: MIT
// Writes a stream into a playout by time marks, with a mark for each PCR.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "host/library/scheduled_playout.h"
#include "host/stream/packet_format.h"
#include "host/stream/pcr_marks.h"

namespace ipplay {

// Holds back what follows a PCR until the next one says when that leaves, or until it is as much as
// no PCR interval should be. The feeder's.
class MarkedWriter {
 public:
  MarkedWriter(ScheduledPlayout& playout, PacketFormat format, const PcrMarks& marks)
      : playout_(playout), format_(format), marks_(marks) {}

  // False once the playout has ended.
  bool Write(std::span<const std::uint8_t> bytes);
  // Writes what is held back, and declares the end.
  void Finish();

 private:
  bool WriteUpTo(std::size_t end);

  ScheduledPlayout& playout_;
  const PacketFormat format_;
  PcrMarks marks_;
  std::vector<std::uint8_t> held_;  // that was not written yet
  std::size_t looked_at_ = 0;       // of it, in whole packets
  std::uint64_t written_ = 0;
};

}  // namespace ipplay
