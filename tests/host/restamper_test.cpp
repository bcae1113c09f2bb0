// SPDX-License-Identifier: MIT
#include "host/stream/restamper.h"

#include <gtest/gtest.h>

#include "host/stream/pcr_rate.h"
#include "tests/host/ts_builder.h"

namespace ipplay {
namespace {

constexpr PacketFormat kPlain{188};
constexpr std::uint64_t kRound = 10 * kPcrHz + 100;  // no whole number of 90 kHz ticks
constexpr std::uint64_t kTimestampModulus = std::uint64_t{1} << 33;

TsPacket Restamped(Restamper& restamper, const PacketSpec& spec) {
  TsPacket packet = MakePacket(spec);
  restamper.Restamp(packet.data());
  return packet;
}

TEST(Restamper, FirstRoundIsLeftAsItIs) {
  Restamper restamper(kPlain, {.start_offset = 0, .round_ticks = kRound});
  const PacketSpec spec{.counter = 9, .pcr = 12345678901, .pts = 8589934000, .dts = 100};
  EXPECT_EQ(Restamped(restamper, spec), MakePacket(spec));
}

TEST(Restamper, ClocksRunThroughTheRounds) {
  Restamper restamper(kPlain, {.start_offset = 0, .round_ticks = kRound});
  const PacketSpec spec{.pcr = 27'000'123, .pts = 90'500, .dts = 90'100};
  for (std::uint64_t round = 0; round < 5; ++round) {
    const TsPacket packet = Restamped(restamper, spec);
    EXPECT_EQ(PcrAt(packet.data()), 27'000'123 + round * kRound);
    // 300 of the PCR's ticks are one of the PTS; the fractions of the rounds must not be lost.
    EXPECT_EQ(GetTimestamp(&packet[12 + 9]), 90'500 + round * kRound / 300);
    EXPECT_EQ(GetTimestamp(&packet[12 + 14]), 90'100 + round * kRound / 300);
    EXPECT_EQ(packet[12 + 9] >> 4, 3);
    EXPECT_EQ(packet[12 + 14] >> 4, 1);
    restamper.StartNextRound();
  }
}

TEST(Restamper, DamagedMarkerBitsStayDamaged) {
  Restamper restamper(kPlain, {.start_offset = 0, .round_ticks = 300 * 7});
  restamper.StartNextRound();
  TsPacket packet = MakePacket({.pts = 90'500, .dts = 90'100});
  TsPacket expected = MakePacket({.pts = 90'507, .dts = 90'107});
  constexpr std::size_t kPes = 12;
  constexpr std::size_t kMarkers[] = {kPes + 9,  kPes + 11, kPes + 13,
                                      kPes + 14, kPes + 16, kPes + 18};
  for (const std::size_t byte : kMarkers) {
    packet[byte] ^= 1;
    expected[byte] ^= 1;
  }
  restamper.Restamp(packet.data());
  EXPECT_EQ(packet, expected);
}

TEST(Restamper, ClocksWrap) {
  Restamper restamper(kPlain, {.start_offset = kPcrModulus - kPcrHz, .round_ticks = kRound});
  TsPacket packet = Restamped(restamper, {.pcr = 2 * kPcrHz, .pts = 3 * 90'000});
  EXPECT_EQ(PcrAt(packet.data()), kPcrHz);
  EXPECT_EQ(GetTimestamp(&packet[12 + 9]), 2U * 90'000);
  packet = Restamped(restamper, {.counter = 1, .pcr = kPcrHz / 2, .pts = 45'000});
  EXPECT_EQ(PcrAt(packet.data()), kPcrModulus - kPcrHz / 2);
  EXPECT_EQ(GetTimestamp(&packet[12 + 9]), kTimestampModulus - 45'000);
}

TEST(Restamper, CountersRunThroughTheRounds) {
  Restamper restamper(kPlain, {.start_offset = 0, .round_ticks = kRound});
  std::vector<int> sent;
  for (int round = 0; round < 3; ++round) {
    // A gap between 4 and 7 is the file's own, and so is the packet without payload.
    for (const auto& [counter, payload] : {std::pair{3, true}, {4, true}, {7, true}, {7, false}}) {
      const TsPacket packet =
          Restamped(restamper, {.counter = static_cast<std::uint8_t>(counter), .payload = payload});
      sent.push_back(packet[3] & 0xF);
    }
    restamper.StartNextRound();
  }
  EXPECT_EQ(sent, (std::vector{3, 4, 7, 7, 8, 9, 12, 12, 13, 14, 1, 1}));
}

TEST(Restamper, PidsCountApartAndRoundsMayStartWithoutPayload) {
  Restamper restamper(kPlain, {.start_offset = 0, .round_ticks = kRound});
  Restamped(restamper, {.pid = 1, .counter = 5});
  Restamped(restamper, {.pid = 2, .counter = 11});
  restamper.StartNextRound();
  EXPECT_EQ(Restamped(restamper, {.pid = 2, .counter = 0, .payload = false})[3] & 0xF, 11);
  EXPECT_EQ(Restamped(restamper, {.pid = 1, .counter = 0})[3] & 0xF, 6);
  EXPECT_EQ(Restamped(restamper, {.pid = 2, .counter = 1})[3] & 0xF, 12);
}

TEST(Restamper, AnnouncedStartIsAnnouncedOnce) {
  Restamper restamper(kPlain, {.start_offset = 0, .round_ticks = kRound});
  const PacketSpec start{.discontinuity = true, .pcr = 0};
  const PacketSpec later{.counter = 1, .discontinuity = true, .pcr = 99};
  EXPECT_EQ(Restamped(restamper, start)[5] & 0x80, 0x80);
  EXPECT_EQ(Restamped(restamper, later)[5] & 0x80, 0x80);
  restamper.StartNextRound();
  EXPECT_EQ(Restamped(restamper, start)[5] & 0x80, 0);
  EXPECT_EQ(Restamped(restamper, later)[5] & 0x80, 0x80);  // one within the file stays
}

TEST(Restamper, OtherPacketsAreLeftAsTheyAre) {
  Restamper restamper(kPlain, {.start_offset = 300, .round_ticks = kRound});
  restamper.StartNextRound();
  TsPacket null_packet = MakePacket({.pid = 0x1FFF, .counter = 3});
  TsPacket scrambled = MakePacket({.pts = 1000});
  scrambled[3] |= 0xC0;
  TsPacket no_pes = MakePacket({.pid = 0x101, .pts = 1000});
  no_pes[6] = 0;  // 00 00 00: a section, as far as one can see
  TsPacket padding = MakePacket({.pid = 0x102, .pts = 1000});
  padding[7] = 0xBE;
  for (TsPacket* packet : {&null_packet, &scrambled, &no_pes, &padding}) {
    const TsPacket before = *packet;
    restamper.Restamp(packet->data());
    EXPECT_EQ(*packet, before);
  }
}

TEST(Restamper, PartsFollowEachOther) {
  Restamper restamper(kPlain,
                      {.start_offset = 0,
                       .parts = {{.start = 1000, .ticks = 5000, .pcr_pid = 1},
                                 {.start = kPcrModulus - 100, .ticks = 700, .pcr_pid = 2}}});
  const auto after = [&restamper](std::uint16_t pid, std::uint64_t value) {
    return PcrAt(Restamped(restamper, {.pid = pid, .pcr = value}).data());
  };
  EXPECT_EQ(after(1, 1200), 1200U);
  EXPECT_EQ(restamper.PartPcrPid(), 1);
  restamper.StartNextRound();
  EXPECT_EQ(after(2, 50), 6150U);  // 150 behind the start of a part that begins at 6000
  EXPECT_EQ(restamper.PartPcrPid(), 2);
  restamper.StartNextRound();
  EXPECT_EQ(after(1, 1200), 6900U);
}

TEST(Restamper, ArrivalTimesOfTimeStampedPackets) {
  Restamper restamper(PacketFormat{192}, {.start_offset = 0, .round_ticks = kRound});
  restamper.StartNextRound();
  // The two permission bits stay, also where the 30 bits of the arrival wrap.
  for (const std::uint32_t word : {0xC0000007U, 0x80000007U, 0xBFFFFFFFU, 0x3FFFFFFFU}) {
    std::array<std::uint8_t, 192> packet{};
    const TsPacket ts = MakePacket({.pcr = 5});
    std::copy(ts.begin(), ts.end(), packet.begin() + 4);
    const std::uint64_t arrival = (word % (1U << 30) + kRound) % (1U << 30);
    for (std::size_t i = 0; i < 4; ++i) {
      packet[i] = static_cast<std::uint8_t>(word >> (24 - 8 * i));
    }
    restamper.Restamp(packet.data());
    EXPECT_EQ(packet[0], (word >> 24 & 0xC0) | arrival >> 24) << word;
    EXPECT_EQ(packet[3], arrival & 0xFF);
    EXPECT_EQ(PcrAt(&packet[4]), 5 + kRound);
  }
}

}  // namespace
}  // namespace ipplay
