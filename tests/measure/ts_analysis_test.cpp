// SPDX-License-Identifier: MIT
#include "host/measure/figures/ts_analysis.h"

#include <gtest/gtest.h>

#include "ts_builder.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;
using testing::FromHex;
using testing::TsFields;
using testing::TsPacketBytes;

constexpr std::int64_t kMs = 1'000'000;

// One packet in each datagram; the first five go to finding the packets, and are handed on with
// the fifth.
void Feed(TsAnalysis& analysis, const std::vector<TsFields>& packets, std::int64_t step_ns = kMs) {
  std::int64_t time = 0;
  for (const TsFields& fields : packets) {
    analysis.Add(TsPacketBytes(fields), time, false);
    time += step_ns;
  }
}

TEST(TsAnalysis, JudgesContinuityCounters) {
  const struct {
    const char* name;
    std::vector<std::uint8_t> counters;
    std::uint64_t errors, missing;
    TsFields seventh = {};  // but for its counter
  } cases[] = {
      {"good over the wrap", {12, 13, 14, 15, 0, 1, 2, 3, 4}, 0, 0},
      {"one missing", {0, 1, 2, 3, 4, 5, 7, 8}, 1, 1},
      {"three missing over the wrap", {10, 11, 12, 13, 14, 2, 3}, 1, 3},
      {"sent twice", {0, 1, 2, 3, 4, 5, 5, 6}, 0, 0},
      {"sent three times", {0, 1, 2, 3, 4, 5, 5, 5, 6}, 1, 0},
      {"two datagrams swapped", {0, 1, 2, 3, 4, 8, 9, 10, 5, 6, 7, 11}, 1, 0},
      {"announced jump", {0, 1, 2, 3, 4, 5, 11, 12}, 0, 0, {.discontinuity = true}},
      {"no payload, no step", {0, 1, 2, 3, 4, 5, 5, 6}, 0, 0, {.has_payload = false}},
      {"no payload, but a step", {0, 1, 2, 3, 4, 5, 6, 7}, 1, 1, {.has_payload = false}},
      {"null packets count as they like", {0, 1, 2, 3, 4, 5, 9, 6}, 0, 0, {.pid = 0x1FFF}},
      {"damaged packets are not judged", {0, 1, 2, 3, 4, 5, 9, 6}, 0, 0, {.error = true}},
      {"other PIDs count for themselves", {0, 1, 2, 3, 4, 5, 9, 6}, 0, 0, {.pid = 0x101}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<TsFields> packets(c.counters.size());
    packets[6] = c.seventh;
    for (std::size_t i = 0; i < packets.size(); ++i) {
      packets[i].counter = c.counters[i];
    }
    TsAnalysis analysis;
    Feed(analysis, packets);
    EXPECT_EQ(analysis.Counters().packets, c.counters.size());
    EXPECT_EQ(analysis.Counters().continuity_errors, c.errors);
    EXPECT_EQ(analysis.MissingPackets(), c.missing);
    EXPECT_EQ(analysis.Counters().null_packets, c.seventh.pid == 0x1FFF ? 1U : 0U);
    EXPECT_EQ(analysis.Counters().transport_errors, c.seventh.error ? 1U : 0U);
    EXPECT_EQ(analysis.Pids().size(), c.seventh.pid == 0x101 ? 2U : 1U);
  }
}

TEST(TsAnalysis, ReadsThePcr) {
  std::vector<TsFields> packets;
  for (int i = 0; i < 40; ++i) {
    TsFields fields{.counter = static_cast<std::uint8_t>(i & 15)};
    // 1 ms of 27 MHz per packet, from just below the 33-bit wrap on.
    if (i % 10 == 0) {
      fields.pcr =
          ((std::uint64_t{1} << 33) * 300 - 27'000 + 27'000 * static_cast<std::uint64_t>(i)) %
          ((std::uint64_t{1} << 33) * 300);
    }
    packets.push_back(fields);
  }
  TsAnalysis analysis;
  Feed(analysis, packets);
  const PcrTracker* clock = analysis.ReferenceClock();
  ASSERT_NE(clock, nullptr);
  EXPECT_EQ(clock->Count(), 4U);
  EXPECT_EQ(clock->DiscontinuityErrors(), 0U);
  EXPECT_NEAR(clock->BitRate().value(), 188 * 8 * 1000, 0.1);
}

TEST(TsAnalysis, KnowsEveryPidThereMayBe) {
  // All but the null packets' PID, three packets each; the last of the last one's is out of order.
  Bytes stream;
  for (int round = 0; round < 3; ++round) {
    for (int pid = 0x20; pid < 0x1FFF; ++pid) {
      const bool wrong = round == 2 && pid == 0x1FFE;
      const Bytes packet = TsPacketBytes({.pid = static_cast<std::uint16_t>(pid),
                                          .counter = static_cast<std::uint8_t>(round + wrong)});
      stream.insert(stream.end(), packet.begin(), packet.end());
    }
  }
  TsAnalysis analysis;
  analysis.Add(stream, 0, false);
  EXPECT_EQ(analysis.Pids().size(), 8191U - 32);
  EXPECT_EQ(analysis.Counters().continuity_errors, 1U);
  EXPECT_EQ(analysis.Pids().back().continuity_errors, 1U);
}

// 3,000 datagrams, with a PCR in every 30th and packets of an audio PID in each.
TEST(TsAnalysis, EstimatesLossByThePcrs) {
  const struct {
    const char* name;
    std::function<bool(int)> lose;
    std::uint64_t missing;
  } cases[] = {
      {"none", [](int) { return false; }, 0},
      {"one datagram", [](int d) { return d == 1000; }, 7},
      {"sixteen datagrams, after which the counters stand as before",
       [](int d) { return d >= 1000 && d < 1016; }, 112},
      {"a second", [](int d) { return d >= 1000 && d < 2000; }, 7000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TsRun run{.slots = testing::GoodSlots(), .packets = 21'000, .lose = c.lose};
    run.slots.push_back({.pid = 0x101, .every = 7, .phase = 6});
    TsAnalysis analysis;
    Play(run, analysis);
    EXPECT_EQ(analysis.MissingPacketsByPcr(), c.missing);
    EXPECT_NEAR(analysis.PcrRateBps().value(), 188 * 8 / 144e-6, 0.1);
  }
}

}  // namespace
}  // namespace ipplay::measure
