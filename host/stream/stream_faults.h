// SPDX-License-Identifier: MIT
// Faults of the transport stream itself, made in its packets on purpose.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <string_view>
#include <vector>

#include "host/stream/packet_format.h"

namespace ipplay {

enum class StreamFaultKind {
  kContinuity,  // the continuity counter of the PID goes up by 5 from here on
  kSync,        // a wrong sync byte
  kTransportError,
  kDrop,       // a null packet in its place
  kPsi,        // a bit of a section of PAT, PMT, NIT, SDT or EIT, so that its CRC is wrong
  kPcrOffset,  // this PCR alone
  kPcrJump,    // this PCR and all that follow it
  kPcrJitter,  // this PCR, by up to half of the amount to either side
};

// To packets that can have the fault, of one PID or of any: `count` of every `range`, the first
// ones, or each with a `chance`, 0 to 1.
struct StreamFault {
  StreamFaultKind kind = StreamFaultKind::kContinuity;
  std::optional<std::uint16_t> pid;
  std::chrono::nanoseconds amount{0};  // of the PCR faults
  std::uint32_t count = 0;
  std::uint32_t range = 0;
  double chance = 0;
};

// "continuity", "pcr-jump", ...
std::string_view NameOf(StreamFaultKind kind);
std::optional<StreamFaultKind> StreamFaultNamed(std::string_view name);
bool HasAmount(StreamFaultKind kind);

// Belongs to the thread that writes the stream, but for the counts.
class StreamFaults {
 public:
  StreamFaults(PacketFormat format, const std::vector<StreamFault>& faults, std::uint64_t seed);

  // The packets with their faults; valid until the next call. What is no whole packet stays.
  std::span<const std::uint8_t> Run(std::span<const std::uint8_t> packets);

  // Packets that each fault was made in, in order. Any thread.
  std::vector<std::uint64_t> Counts() const;

 private:
  struct Active {
    StreamFault fault;
    std::uint64_t seen = 0;  // packets that can have it
    std::int64_t shift = 0;  // ticks of 27 MHz by which PCRs have jumped
    std::atomic<std::uint64_t> made{0};
  };

  bool CanHave(const Active& active, const std::uint8_t* packet) const;
  bool Happens(Active& active);
  void Make(Active& active, std::uint8_t* packet);
  void LearnPmts(const std::uint8_t* packet);

  const PacketFormat format_;
  std::vector<std::unique_ptr<Active>> faults_;
  std::mt19937_64 random_;
  std::set<std::uint16_t> pmt_pids_;
  std::array<std::uint8_t, 8192> counter_shifts_{};
  std::vector<std::uint8_t> bytes_;
};

}  // namespace ipplay
