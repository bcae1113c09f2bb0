// SPDX-License-Identifier: MIT
#include "host/stream/pcr_rate.h"

#include <gtest/gtest.h>

#include "tests/host/ts_builder.h"

namespace ipplay {
namespace {

constexpr std::uint64_t kTicks = 27'000;  // per packet: 1,000 packets per second

PcrRateMeter Measure(const std::vector<std::uint8_t>& stream) {
  PcrRateMeter meter;
  for (std::size_t i = 0; i < stream.size() / 188; ++i) {
    meter.Add(i, &stream[i * 188]);
  }
  return meter;
}

void AddPcr(PcrRateMeter& meter, std::uint64_t index, std::uint64_t pcr, std::uint16_t pid = 0x100,
            bool discontinuity = false) {
  const TsPacket packet = MakePacket({.pid = pid, .discontinuity = discontinuity, .pcr = pcr});
  meter.Add(index, packet.data());
}

TEST(PcrRate, ConstantRateAcrossTheWrap) {
  for (const std::uint64_t first : {std::uint64_t{0}, kPcrModulus - 500 * kTicks}) {
    const auto rate = Measure(MakeStream(2000, kTicks, first)).Rate();
    ASSERT_TRUE(rate);
    EXPECT_EQ(rate->pid, 0x100);
    EXPECT_DOUBLE_EQ(rate->packets_per_second, 1000);
    EXPECT_EQ(rate->wraps, first == 0 ? 0U : 1U);
    EXPECT_EQ(rate->discontinuities, 0U);
    EXPECT_FALSE(rate->IsVariable());
    EXPECT_EQ(rate->TicksOf(2000), 2000 * kTicks);
  }
}

TEST(PcrRate, JumpsAreLeftOut) {
  struct Case {
    const char* what;
    std::uint64_t pcr;  // after packet 1000 at 1000 * kTicks; a tenth of a second later
    bool announced;
    bool jumps;
  };
  const std::uint64_t right = 1100 * kTicks;
  for (const Case& c : {Case{"none", right, false, false},
                        {"back", 5, false, true},
                        {"forth", right + 3 * kPcrHz, false, true},
                        {"far forth", right + 3600 * kPcrHz, false, true},
                        {"announced", right + kTicks, true, true}}) {
    PcrRateMeter meter;
    for (std::uint64_t i = 0; i <= 1000; i += 100) {
      AddPcr(meter, i, i * kTicks);
    }
    AddPcr(meter, 1100, c.pcr, 0x100, c.announced);
    AddPcr(meter, 1200, c.pcr + 100 * kTicks);
    const auto rate = meter.Rate();
    ASSERT_TRUE(rate);
    EXPECT_DOUBLE_EQ(rate->packets_per_second, 1000) << c.what;
    EXPECT_EQ(rate->discontinuities, c.jumps ? 1U : 0U) << c.what;
  }
}

TEST(PcrRate, VariableRateIsTheMean) {
  PcrRateMeter meter;
  std::uint64_t pcr = 0;
  std::uint64_t packet = 0;
  // Two seconds of 1,000 and two of 3,000 packets a second.
  for (int i = 0; i < 40; ++i) {
    AddPcr(meter, packet, pcr);
    packet += i < 20 ? 100 : 300;
    pcr += kPcrHz / 10;
  }
  AddPcr(meter, packet, pcr);
  const auto rate = meter.Rate();
  ASSERT_TRUE(rate);
  EXPECT_DOUBLE_EQ(rate->packets_per_second, 2000);
  EXPECT_TRUE(rate->IsVariable());
  EXPECT_DOUBLE_EQ(rate->lowest, 1000);
  EXPECT_DOUBLE_EQ(rate->highest, 3000);
}

TEST(PcrRate, RarePcrsAreNoJumps) {
  PcrRateMeter meter;
  for (std::uint64_t i = 0; i < 5; ++i) {
    AddPcr(meter, i * 2000, i * 2000 * kTicks);
  }
  ASSERT_TRUE(meter.Rate());
  EXPECT_DOUBLE_EQ(meter.Rate()->packets_per_second, 1000);
}

TEST(PcrRate, ChoosesThePidThatCoversMostUnlessToldOtherwise) {
  PcrRateMeter meter;
  for (std::uint64_t i = 0; i < 100; ++i) {
    AddPcr(meter, i * 10, i * 10 * kTicks, 0x200);
  }
  for (std::uint64_t i = 0; i < 50; ++i) {
    AddPcr(meter, i * 10 + 5, i * 10 * 2 * kTicks, 0x100);
  }
  EXPECT_EQ(meter.Rate()->pid, 0x200);
  EXPECT_DOUBLE_EQ(meter.Rate(0x100)->packets_per_second, 500);
  EXPECT_FALSE(meter.Rate(0x300));
  EXPECT_FALSE(PcrRateMeter().Rate());
}

// Packets outside the first and last PCR take the mean time; a jump in the middle stays in.
TEST(PcrRate, RoundLastsFromTheFirstPacketToBehindTheLast) {
  PcrRateMeter meter;
  AddPcr(meter, 5, 1'000'000);
  AddPcr(meter, 105, 1'000'000 + 100 * kTicks);
  EXPECT_EQ(meter.Rate()->TicksOf(120), 120 * kTicks);
  AddPcr(meter, 115, 7, 0x100, true);
  EXPECT_EQ(meter.Rate()->TicksOf(120),
            (kPcrModulus + 7 + 5 * kTicks - (1'000'000 - 5 * kTicks)) % kPcrModulus);
}

}  // namespace
}  // namespace ipplay
