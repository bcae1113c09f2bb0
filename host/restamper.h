// Makes the rounds of a looped stream one stream: the clocks (PCR, PTS, DTS and the arrival time
// of 192-byte packets) and the continuity counters run on where a round starts again.
#pragma once

#include <array>
#include <cstdint>

#include "host/packet_format.h"

namespace ipplay {

// Left as they are: discontinuities inside the file, elementary stream clock references, splice
// times in private sections, PES headers that start in one packet and end in the next, time stamps
// of scrambled packets, and the parity bytes of 204-byte packets.
class Restamper {
 public:
  // `start_offset` is added to all clocks from the first round on, `round_ticks` once more for
  // every further round; both in 27 MHz ticks, modulo the wrap of the PCR.
  Restamper(PacketFormat format, std::uint64_t start_offset, std::uint64_t round_ticks);

  // To be called between two rounds.
  void StartNextRound();

  // Rewrites one packet of the format in place.
  void Restamp(std::uint8_t* packet);

 private:
  struct Counter {
    std::uint8_t last = 0;       // last value sent
    std::uint8_t shift = 0;      // added to the file's values in this round
    bool started = false;        // a packet of the PID was sent
    bool started_round = false;  // the same in this round
  };

  void RestampCounter(std::uint8_t* packet);
  void RestampClock(std::uint8_t* packet) const;
  void RestampPes(std::uint8_t* packet) const;
  void RestampArrival(std::uint8_t* header) const;
  std::uint64_t Shifted(std::uint64_t timestamp_90khz) const;

  PacketFormat format_;
  std::uint64_t offset_;
  std::uint64_t round_ticks_;
  bool first_round_ = true;
  std::array<Counter, 8192> counters_{};
};

}  // namespace ipplay
