// SPDX-License-Identifier: MIT
// Tables that change while a stream is filtered.
#include <gtest/gtest.h>

#include <vector>

#include "host/measure/figures/psi_section.h"
#include "host/stream/stream_filter.h"
#include "tests/host/ts_builder.h"

namespace ipplay {
namespace {

// A section without its check bytes, in a packet.
TsPacket TablePacket(std::uint16_t pid, std::vector<std::uint8_t> section) {
  const std::uint32_t crc = measure::MpegCrc32(section);
  for (int shift = 24; shift >= 0; shift -= 8) {
    section.push_back(static_cast<std::uint8_t>(crc >> shift));
  }
  TsPacket packet = MakePacket({.pid = pid});
  packet[1] |= 0x40;
  packet[4] = 0;
  std::copy(section.begin(), section.end(), packet.begin() + 5);
  return packet;
}

TsPacket Pmt(std::uint16_t pid, std::uint16_t program, std::uint8_t stream) {
  return TablePacket(pid, {2, 0xB0, 18, static_cast<std::uint8_t>(program >> 8),
                           static_cast<std::uint8_t>(program), 0xC1, 0, 0, 0xE1, stream, 0xF0, 0, 2,
                           0xE1, stream, 0xF0, 0});
}

// ISO/IEC 13818-1, 2.4.4.5: the version goes up whenever what the table says changes.
TEST(PidFilter, VersionOfThePatGoesUpWithEveryProgramme) {
  StreamFilter filter(PacketFormat{188}, {.pids = {0x100, 0x101}});
  const TsPacket pat = TablePacket(
      0, {0, 0xB0, 17, 0, 7, 0xFF, 0, 0, 0, 1, 0xE0, 0x20, 0, 2, 0xE0, 0x21});  // version 31
  const auto filtered = [&filter](TsPacket packet) {
    filter.Filter(packet);
    return packet;
  };
  const auto is_null = [](const TsPacket& packet) { return packet[1] == 0x1F; };
  EXPECT_TRUE(is_null(filtered(pat)));  // nothing is known yet
  EXPECT_FALSE(is_null(filtered(Pmt(0x20, 1, 0))));
  const TsPacket one = filtered(pat);
  EXPECT_EQ(one[7], 13);  // length of the section: one programme
  EXPECT_EQ(one[10], 0xFF);
  EXPECT_EQ(filtered(pat)[10], 0xFF);
  filtered(Pmt(0x21, 2, 1));
  const TsPacket two = filtered(pat);
  EXPECT_EQ(two[7], 17);
  EXPECT_EQ(two[10], 0xC1);  // version 0 follows 31
  EXPECT_EQ(filtered(pat)[10], 0xC1);
}

// ISO/IEC 13818-1, 2.4.4.5: section_length is at most 1021, which is 253 programmes.
TEST(PidFilter, APatHoldsWhatASectionHasRoomFor) {
  StreamFilter filter(PacketFormat{188}, {.pids = {0x100}});
  constexpr std::uint8_t kSections = 7;
  constexpr std::uint16_t kInSection = 40;
  TsPacket pat{};
  for (std::uint8_t number = 0; number < kSections; ++number) {
    std::vector<std::uint8_t> section{0,    0xB0,   9 + 4 * kInSection, 0, 7,
                                      0xC1, number, kSections - 1};
    for (std::uint16_t entry = 0; entry < kInSection; ++entry) {
      const int program = 1 + number * kInSection + entry;
      section.insert(section.end(), {static_cast<std::uint8_t>(program >> 8),
                                     static_cast<std::uint8_t>(program), 0xE0, 0x20});
    }
    pat = TablePacket(0, section);
    TsPacket packet = pat;
    filter.Filter(packet);
  }
  for (std::uint16_t program = 1; program <= kSections * kInSection; ++program) {
    TsPacket pmt = Pmt(0x20, program, 0);
    filter.Filter(pmt);
  }
  filter.Filter(pat);
  EXPECT_EQ((pat[6] & 0x0F) << 8 | pat[7], 1021);
}

}  // namespace
}  // namespace ipplay
