// SPDX-License-Identifier: MIT
#include "host/measure/figures/ts_analysis.h"

#include <gtest/gtest.h>

#include "frame_builder.h"

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
      {"sent three times", {0, 1, 2, 3, 4, 5, 5, 5, 6}, 1, 15},
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
    EXPECT_EQ(analysis.Counters().missing_packets, c.missing);
    EXPECT_EQ(analysis.Counters().null_packets, c.seventh.pid == 0x1FFF ? 1U : 0U);
    EXPECT_EQ(analysis.Counters().transport_errors, c.seventh.error ? 1U : 0U);
    EXPECT_EQ(analysis.Pids().size(), c.seventh.pid == 0x101 ? 2U : 1U);
  }
}

// PAT with programme 1 on PID 0x1000, from an encoder: the check bytes are not our own.
const Bytes kPat = FromHex("00 00b00d0001c100000001f0002ab104b2");

TEST(TsAnalysis, WatchesTheTablesIntervals) {
  // A packet every 10 ms; PATs 0.4 s apart, and then one 0.6 s after the last.
  std::vector<TsFields> packets;
  for (int i = 0; i < 200; ++i) {
    TsFields fields{.counter = static_cast<std::uint8_t>(i & 15)};
    if (i == 0 || i == 40 || i == 80 || i == 140) {
      fields = {
          .pid = 0, .counter = static_cast<std::uint8_t>(i / 40), .start = true, .payload = kPat};
      if (i == 140) {
        fields.counter = 3;
      }
    }
    packets.push_back(fields);
  }
  TsAnalysis analysis;
  Feed(analysis, packets, 10 * kMs);
  EXPECT_EQ(analysis.Counters().pat_errors, 1U);
  EXPECT_EQ(analysis.Counters().crc_errors, 0U);
  analysis.Finish(0);
  EXPECT_EQ(analysis.Counters().pat_errors, 2U);  // none in the last 0.59 s
  EXPECT_EQ(analysis.Counters().pmt_errors, 1U);  // never came, so the PAT was understood
}

TEST(TsAnalysis, CountsDamagedTablesAndForeignOnes) {
  Bytes damaged = kPat;
  damaged[9] ^= 1;
  Bytes foreign = kPat;
  foreign[1] = 0x42;
  foreign.resize(8);  // goes on in the next packet: nothing to check
  foreign[2] = 0xB3;
  std::vector<TsFields> packets{{.counter = 0}, {.counter = 1}, {.counter = 2}, {.counter = 3}};
  packets.push_back({.pid = 0, .counter = 0, .start = true, .payload = damaged});
  packets.push_back({.pid = 0, .counter = 1, .start = true, .payload = foreign});
  TsAnalysis analysis;
  Feed(analysis, packets);
  EXPECT_EQ(analysis.Counters().crc_errors, 1U);
  EXPECT_EQ(analysis.Counters().pat_errors, 1U);
}

TEST(TsAnalysis, WatchesPresentationTimeStamps) {
  // A PES header with a PTS every 0.5 s, but for one 0.8 s after the one before.
  const Bytes pes = FromHex("000001 e0 0000 80 80 05 2100010001");
  std::vector<TsFields> packets;
  for (int i = 0; i < 25; ++i) {
    const bool start = i == 0 || i == 5 || i == 10 || i == 18 || i == 23;
    packets.push_back({.counter = static_cast<std::uint8_t>(i & 15),
                       .start = start,
                       .payload = start ? pes : Bytes{}});
  }
  TsAnalysis analysis;
  Feed(analysis, packets, 100 * kMs);
  EXPECT_EQ(analysis.Counters().pts_errors, 1U);
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
  EXPECT_NEAR(clock->BitRate(), 188 * 8 * 1000, 0.1);
}

}  // namespace
}  // namespace ipplay::measure
