// SPDX-License-Identifier: MIT
#include "host/stream/packet_format.h"

#include <gtest/gtest.h>

#include <vector>

namespace ipplay {
namespace {

// `packets` packets with sync bytes where the format has them; all else is 0x11.
std::vector<std::uint8_t> Stream(std::uint32_t packet_bytes, std::size_t sync, std::size_t packets,
                                 std::size_t leading = 0) {
  std::vector<std::uint8_t> bytes(leading + packets * packet_bytes, 0x11);
  for (std::size_t i = 0; i < packets; ++i) {
    bytes[leading + i * packet_bytes + sync] = 0x47;
  }
  return bytes;
}

TEST(PacketFormat, RecognisedBySyncBytes) {
  struct Case {
    std::uint32_t packet_bytes;
    std::size_t sync;
    std::size_t packets;
    std::size_t leading;
  };
  for (const Case& c : {Case{188, 0, 12, 0},
                        {192, 4, 12, 0},
                        {204, 0, 12, 0},
                        {188, 0, 12, 100},
                        {192, 4, 12, 187},
                        {204, 0, 12, 203},
                        {188, 0, 1, 0},
                        {192, 4, 3, 0}}) {
    const auto found =
        DetectPacketFormat(Stream(c.packet_bytes, c.sync, c.packets, c.leading), true);
    ASSERT_TRUE(found.format) << c.packet_bytes << " behind " << c.leading;
    EXPECT_EQ(found.format->packet_bytes, c.packet_bytes);
    EXPECT_EQ(found.first_packet, c.leading);
  }
}

TEST(PacketFormat, StraySyncBytesDoNotMislead) {
  auto bytes = Stream(188, 0, 12, 50);
  bytes[3] = bytes[7] = bytes[3 + 188] = bytes[3 + 376] = 0x47;
  EXPECT_EQ(DetectPacketFormat(bytes, true).first_packet, 50U);
}

TEST(PacketFormat, DamagedSyncBytesAtTheHeadDoNotMislead) {
  auto broken = Stream(188, 0, 12);
  broken[3 * 188] = 0;
  auto broken_tts = Stream(192, 4, 12);
  broken_tts[2 * 192 + 4] = 0;
  auto few = Stream(204, 0, 5);
  few[4 * 204] = 0;
  auto first = Stream(188, 0, 12);
  first[0] = 0;
  struct Case {
    const std::vector<std::uint8_t>& bytes;
    std::uint32_t packet_bytes;
    std::uint64_t first_packet;
  };
  for (const Case& c : {Case{broken, 188, 0},
                        {broken_tts, 192, 0},
                        {few, 204, 0},
                        {first, 188, 188},
                        {Stream(188, 0, 12, 900'000), 188, 900'000}}) {
    const Detection found = DetectPacketFormat(c.bytes, true);
    ASSERT_TRUE(found.format);
    EXPECT_EQ(found.format->packet_bytes, c.packet_bytes);
    EXPECT_EQ(found.first_packet, c.first_packet);
  }
}

TEST(PacketFormat, WhatIsNoStreamIsToldWithTheOffset) {
  EXPECT_FALSE(DetectPacketFormat(std::vector<std::uint8_t>(3000, 0x11), true).format);
  EXPECT_EQ(DetectPacketFormat(std::vector<std::uint8_t>(3000, 0x11), true).sync_lost, 0U);
  // Less than a packet, and a single sync byte of a stream that goes on.
  EXPECT_FALSE(DetectPacketFormat(std::vector<std::uint8_t>(100, 0x47), true).format);
  EXPECT_FALSE(DetectPacketFormat(Stream(188, 0, 1), false).format);
}

}  // namespace
}  // namespace ipplay
