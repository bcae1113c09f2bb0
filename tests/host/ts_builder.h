// SPDX-License-Identifier: MIT
// Transport packets for tests, written byte by byte from ISO/IEC 13818-1 and not with the library
// that the code under test reads them with.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace ipplay {

using TsPacket = std::array<std::uint8_t, 188>;

struct PacketSpec {
  std::uint16_t pid = 0x100;
  std::uint8_t counter = 0;
  bool payload = true;
  bool discontinuity = false;
  std::optional<std::uint64_t> pcr{};  // 27 MHz
  std::optional<std::uint64_t> pts{};  // 90 kHz
  std::optional<std::uint64_t> dts{};
};

inline void PutTimestamp(std::uint8_t* at, std::uint8_t prefix, std::uint64_t t) {
  at[0] = static_cast<std::uint8_t>(prefix * 16U | (t >> 30 & 7) << 1 | 1);
  at[1] = static_cast<std::uint8_t>(t >> 22);
  at[2] = static_cast<std::uint8_t>((t >> 15 & 0x7F) << 1 | 1);
  at[3] = static_cast<std::uint8_t>(t >> 7);
  at[4] = static_cast<std::uint8_t>((t & 0x7F) << 1 | 1);
}

inline std::uint64_t GetTimestamp(const std::uint8_t* at) {
  return (std::uint64_t{at[0]} >> 1 & 7) << 30 | std::uint64_t{at[1]} << 22 |
         (std::uint64_t{at[2]} >> 1) << 15 | std::uint64_t{at[3]} << 7 | std::uint64_t{at[4]} >> 1;
}

inline TsPacket MakePacket(const PacketSpec& spec) {
  TsPacket p;
  p.fill(0xFF);
  const bool adaptation = spec.pcr || spec.discontinuity || !spec.payload;
  p[0] = 0x47;
  p[1] = static_cast<std::uint8_t>((spec.pts ? 0x40 : 0) | spec.pid >> 8);
  p[2] = static_cast<std::uint8_t>(spec.pid);
  p[3] = static_cast<std::uint8_t>((adaptation ? 0x20 : 0) | (spec.payload ? 0x10 : 0) |
                                   (spec.counter & 0xF));
  std::size_t at = 4;
  if (adaptation) {
    const std::size_t length = spec.payload ? 7 : 183;
    p[4] = static_cast<std::uint8_t>(length);
    p[5] = static_cast<std::uint8_t>((spec.discontinuity ? 0x80 : 0) | (spec.pcr ? 0x10 : 0));
    if (spec.pcr) {
      const std::uint64_t base = *spec.pcr / 300;
      const std::uint64_t extension = *spec.pcr % 300;
      p[6] = static_cast<std::uint8_t>(base >> 25);
      p[7] = static_cast<std::uint8_t>(base >> 17);
      p[8] = static_cast<std::uint8_t>(base >> 9);
      p[9] = static_cast<std::uint8_t>(base >> 1);
      p[10] = static_cast<std::uint8_t>((base & 1) << 7 | 0x7E | extension >> 8);
      p[11] = static_cast<std::uint8_t>(extension);
    }
    at = 5 + length;
  }
  if (spec.pts) {
    const std::array<std::uint8_t, 9> head{0,
                                           0,
                                           1,
                                           0xE0,
                                           0,
                                           0,
                                           0x80,
                                           static_cast<std::uint8_t>(spec.dts ? 0xC0 : 0x80),
                                           static_cast<std::uint8_t>(spec.dts ? 10 : 5)};
    std::copy(head.begin(), head.end(), p.begin() + static_cast<std::ptrdiff_t>(at));
    PutTimestamp(&p[at + 9], spec.dts ? 3 : 2, *spec.pts);
    if (spec.dts) {
      PutTimestamp(&p[at + 14], 1, *spec.dts);
    }
  }
  return p;
}

inline std::uint64_t PcrAt(const std::uint8_t* p) {
  const std::uint64_t base = std::uint64_t{p[6]} << 25 | std::uint64_t{p[7]} << 17 |
                             std::uint64_t{p[8]} << 9 | std::uint64_t{p[9]} << 1 | p[10] >> 7;
  return base * 300 + (p[10] & 1U) * 256U + p[11];
}

// A stream of constant rate: `ticks_per_packet` of 27 MHz between packets, a PCR in every tenth.
inline std::vector<std::uint8_t> MakeStream(std::size_t packets, std::uint64_t ticks_per_packet,
                                            std::uint64_t first_pcr = 0) {
  std::vector<std::uint8_t> stream;
  for (std::size_t i = 0; i < packets; ++i) {
    PacketSpec spec{.counter = static_cast<std::uint8_t>(i)};
    if (i % 10 == 0) {
      spec.pcr = (first_pcr + i * ticks_per_packet) % ((1ULL << 33) * 300);
    }
    const TsPacket packet = MakePacket(spec);
    stream.insert(stream.end(), packet.begin(), packet.end());
  }
  return stream;
}

}  // namespace ipplay
