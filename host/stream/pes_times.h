// SPDX-License-Identifier: MIT
// How long the content of a stream lasts by the time stamps of its PES packets.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

namespace ipplay {

// PTS and DTS have 33 bits.
inline constexpr std::uint64_t kPesTimeModulus = std::uint64_t{1} << 33;

// The time stamps of a PES packet, complete within one transport packet.
struct PesStamps {
  std::uint8_t* pes = nullptr;  // the PES packet
  bool has_dts = false;
};

// None if no PES packet with time stamps starts in the 188-byte transport packet.
std::optional<PesStamps> FindPesStamps(std::uint8_t* packet);

class PesTimes {
 public:
  void Add(const std::uint8_t* packet);
  // The packets up to the next one that is added are not looked at; their time counts.
  void Skip();

  // The time from the first PES packet to the end of the last one, in 90 kHz ticks, of the longest
  // stream. Streams whose decoding times jump do not count.
  std::uint64_t Ticks() const;

 private:
  struct Times {
    std::uint64_t last = 0;
    std::uint64_t span = 0;
    std::uint64_t skipped = 0;     // time that passed unseen
    std::uint64_t packets = 0;     // but for the first one behind what was skipped
    std::uint64_t bytes = 0;       // of the PES packets before the last one, if they give it
    std::uint64_t last_bytes = 0;  // of the last one
    bool is_steady = true;
    bool skips = false;
    bool is_video = false;
  };

  static std::uint64_t LastOne(const Times& times);

  std::map<std::uint16_t, Times> times_;
};

}  // namespace ipplay
