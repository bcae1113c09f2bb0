// SPDX-License-Identifier: MIT
// Makes the rounds of a looped stream one stream: the clocks (PCR, PTS, DTS and the arrival time
// of 192-byte packets) and the continuity counters run on where a round starts again, and the
// versions of PAT and PMTs where other streams follow.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "host/stream/packet_format.h"
#include "host/stream/pcr_rate.h"
#include "host/stream/stream_tables.h"
#include "host/stream/table_versions.h"

namespace ipplay {

// An inserted packet: a null packet, or one with nothing but a PCR.
struct SeamPacket {
  std::uint64_t before_packet = 0;   // of the round, counted from 0 without inserted ones
  std::optional<std::uint64_t> pcr;  // in the clock of the file, 27 MHz
};

// One of the streams that are played in a row as one.
struct RestampPart {
  std::uint64_t start = 0;  // its own clock at its first packet, 27 MHz ticks
  std::uint64_t ticks = 0;  // that it lasts
  std::uint16_t pcr_pid = 0;
  std::vector<SeamPacket> seam{};  // in order
  StreamTables tables{};           // its own
};

struct RestampPlan {
  std::uint64_t start_offset = 0;  // added to all clocks from the first round on, 27 MHz ticks
  std::uint64_t round_ticks = 0;   // added again for every further round
  std::uint16_t pcr_pid = 0;
  std::vector<SeamPacket> seam{};    // in order
  std::vector<RestampPart> parts{};  // a round is one of them after the other; none: of one stream
};

// The packets to insert at the seam of a round of `packets` packets: `null_packets` null packets at
// its end, and extra PCRs where the gap across the seam would exceed 40 ms.
std::vector<SeamPacket> SeamPackets(const PcrRate& rate, std::uint64_t packets,
                                    std::uint64_t null_packets);

// The packets to insert into a stream of `packets` packets that others stand before and behind:
// `null_packets` null packets at its end, a PCR at its start, and PCRs so that none are more than
// 40 ms apart.
std::vector<SeamPacket> JoinPackets(const PcrRate& rate, std::uint64_t packets,
                                    std::uint64_t null_packets);

// Left as they are: discontinuities inside the file, elementary stream clock references, splice
// times in private sections, PES headers that start in one packet and end in the next, time stamps
// of scrambled packets, and the parity bytes of 204-byte packets.
class Restamper {
 public:
  using Bytes = std::span<const std::uint8_t>;
  // False ends the run.
  using Emit = std::function<bool(Bytes)>;

  Restamper(PacketFormat format, RestampPlan plan);

  // Rewrites whole packets in place and emits them, with the inserted ones. The next call continues
  // the round; a call without packets ends it.
  bool Run(std::span<std::uint8_t> packets, const Emit& emit);
  // Call it between two rounds, or two parts of them.
  void StartNextRound();

  // Of the part in hand; nothing where there are no parts.
  std::optional<std::uint16_t> PartPcrPid() const {
    return plan_.parts.empty() ? std::nullopt : std::optional(plan_.parts[part_].pcr_pid);
  }

  // Rewrites one packet of the format in place.
  void Restamp(std::uint8_t* packet);

 private:
  struct Counter {
    std::uint8_t last = 0;       // last value sent
    std::uint8_t shift = 0;      // added to the file's values in this round
    bool started = false;        // a packet of the PID was sent
    bool started_round = false;  // the same in this round
  };

  const std::vector<SeamPacket>& Seam() const {
    return plan_.parts.empty() ? plan_.seam : plan_.parts[part_].seam;
  }
  bool IsPacketDue() const;
  Bytes MakePacket(const std::uint8_t* next);
  void RestampCounter(std::uint8_t* packet);
  void RestampClock(std::uint8_t* packet) const;
  void RestampPes(std::uint8_t* packet) const;
  void RestampArrival(std::uint8_t* header) const;
  std::uint64_t Shifted(std::uint64_t timestamp_90khz) const;

  PacketFormat format_;
  RestampPlan plan_;
  std::uint64_t offset_;
  std::size_t part_ = 0;              // in plan_.parts
  std::uint64_t packet_ = 0;          // index in the round of the next packet
  std::size_t next_seam_packet_ = 0;  // in Seam()
  std::vector<std::uint8_t> made_;    // the last inserted packet
  TableVersions versions_;
  bool first_round_ = true;
  std::array<Counter, 8192> counters_{};
};

}  // namespace ipplay
