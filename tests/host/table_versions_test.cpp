// SPDX-License-Identifier: MIT
#include "host/stream/table_versions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "host/measure/figures/psi_section.h"
#include "tests/host/ts_builder.h"

namespace ipplay {
namespace {

constexpr std::uint16_t kPmt = 0x100;
constexpr std::uint16_t kProgram = 7;

// A PMT of 400 bytes.
std::vector<std::uint8_t> Pmt(std::uint8_t version) {
  std::vector<std::uint8_t> section{2, 0xB1, 0x8D, 0, kProgram, 0};
  section[5] = static_cast<std::uint8_t>(0xC1 | version << 1);
  for (std::uint8_t fill = 0; section.size() < 396; ++fill) {
    section.push_back(fill);
  }
  const std::uint32_t crc = measure::MpegCrc32(section);
  for (int shift = 24; shift >= 0; shift -= 8) {
    section.push_back(static_cast<std::uint8_t>(crc >> shift));
  }
  return section;
}

// It begins where only so many bytes are left in a packet.
std::vector<TsPacket> InPackets(const std::vector<std::uint8_t>& section, std::size_t left) {
  std::vector<TsPacket> packets;
  for (std::size_t from = 0; from < section.size();) {
    const bool starts = from == 0;
    TsPacket packet =
        MakePacket({.pid = kPmt, .counter = static_cast<std::uint8_t>(packets.size())});
    const std::size_t room = starts ? left : 184;
    if (starts) {
      packet[1] |= 0x40;
      packet[4] = static_cast<std::uint8_t>(183 - left);  // pointer_field
    }
    const std::size_t count = std::min(room, section.size() - from);
    std::copy_n(section.begin() + static_cast<std::ptrdiff_t>(from), count,
                packet.end() - static_cast<std::ptrdiff_t>(room));
    packets.push_back(packet);
    from += count;
  }
  return packets;
}

StreamTables WithPmt(std::uint8_t content) {
  const Tables tables{{kProgram, {.version = 31, .sections = {{0, {content}}}}}};
  return {.first = tables, .last = tables, .pmt_pids = {kPmt}};
}

TEST(TableVersions, AreChangedWhereverTheSectionsBytesAre) {
  for (const std::size_t left : {1U, 3U, 5U, 6U, 28U, 30U, 100U, 183U}) {
    TableVersions versions;
    versions.Join(WithPmt(1));
    auto packets = InPackets(Pmt(31), left);
    for (TsPacket& packet : packets) {
      versions.Rewrite(packet.data());
    }
    EXPECT_EQ(packets, InPackets(Pmt(31), left));
    versions.Join(WithPmt(2));
    for (TsPacket& packet : packets) {
      TsPacket again = packet;  // a packet may come twice: 2.4.3.3
      versions.Rewrite(packet.data());
      versions.Rewrite(again.data());
      EXPECT_EQ(again, packet);
    }
    EXPECT_EQ(packets, InPackets(Pmt(0), left)) << left;
  }
}

TEST(TableVersions, DamagedTablesStayAsDamaged) {
  TableVersions versions;
  versions.Join(WithPmt(1));
  versions.Join(WithPmt(2));
  auto damaged = Pmt(31);
  auto expected = Pmt(0);
  damaged[200] ^= 0x40;
  expected[200] ^= 0x40;
  auto packets = InPackets(damaged, 183);
  for (TsPacket& packet : packets) {
    versions.Rewrite(packet.data());
  }
  EXPECT_EQ(packets, InPackets(expected, 183));
}

}  // namespace
}  // namespace ipplay
