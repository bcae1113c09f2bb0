// SPDX-License-Identifier: MIT
#include "host/measure/figures/stream_second.h"

#include <gtest/gtest.h>

#include <map>

#include "frame_builder.h"
#include "host/measure/figures/measurement.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;
using testing::RtpPacket;
using testing::TsPayload;
using testing::UdpFrame;

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kSecond = 1000 * kMs;
constexpr std::int64_t kStart = 1'000'000 * kSecond + 700 * kMs;

struct Kept : SecondSink {
  void Add(const StreamSecond& second) override { of[second.stream].push_back(second); }
  std::map<std::uint32_t, std::vector<StreamSecond>> of;
};

void AddFrame(Measurement& measurement, std::int64_t at_ms, std::uint16_t number,
              std::uint16_t port) {
  const Bytes frame = UdpFrame(
      RtpPacket({.sequence_number = number}, TsPayload(static_cast<std::uint8_t>(number * 7 % 16))),
      port);
  measurement.Add(LinkType::kEthernet, {kStart + at_ms * kMs, {frame, frame.size()}});
}

// 4 s from 0.7 s past a full second on, a datagram each 10 ms. Of the first stream 30 to 39 are
// missing (1.0 to 1.1 s past the full second), and 39 comes late, in the next second; the other
// one ends at 1.5 s of the run.
TEST(StreamSecond, CutsAllStreamsAtFullSecondsToTheEnd) {
  Measurement measurement{MeasurementSettings{}};
  Kept kept;
  measurement.ReportSecondsTo(&kept);
  for (std::uint16_t i = 0; i < 400; ++i) {
    if (i < 30 || i >= 40) {
      AddFrame(measurement, i * 10, i, 5004);
    }
    if (i == 132) {
      AddFrame(measurement, i * 10 + 1, 39, 5004);
    }
    if (i < 150) {
      AddFrame(measurement, i * 10, i, 5006);
    }
  }
  measurement.Finish(kStart + 4000 * kMs);

  const std::vector<std::int64_t> lengths{300 * kMs, kSecond, kSecond, kSecond, 700 * kMs};
  const struct {
    std::vector<std::uint64_t> frames;
    std::vector<std::int64_t> lost;
    std::vector<std::int64_t> gaps;
  } kExpected[] = {
      {{30, 90, 101, 100, 70}, {0, 10, -1, 0, 0}, {10, 110, 10, 10, 10}},
      {{30, 100, 20, 0, 0}, {0, 0, 0, 0, 0}, {10, 10, 810, 1810, 2510}},
  };
  ASSERT_EQ(kept.of.size(), 2U);
  for (const auto& [number, seconds] : kept.of) {
    SCOPED_TRACE(number);
    ASSERT_EQ(seconds.size(), 5U);
    std::int64_t start = kStart;
    for (std::size_t i = 0; i < 5; ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(seconds[i].start_ns, start);
      EXPECT_EQ(seconds[i].length_ns, lengths[i]);
      EXPECT_EQ(seconds[i].frames, kExpected[number].frames[i]);
      EXPECT_EQ(seconds[i].ts_packets,
                7 * kExpected[number].frames[i] - (i == 2 && number == 0 ? 7 : 0));
      EXPECT_EQ(seconds[i].lost, kExpected[number].lost[i]);
      EXPECT_EQ(seconds[i].longest_gap_ns, kExpected[number].gaps[i] * kMs);
      start += lengths[i];
    }
    // Where nothing came, the delay factor is the time since the last frame.
    if (number == 1) {
      EXPECT_EQ(seconds[3].delay_factor_ns, 1810.0 * kMs);
    }
  }
}

TEST(StreamSecond, LimitsTheRowsOfALongHole) {
  Measurement measurement{MeasurementSettings{}};
  Kept kept;
  measurement.ReportSecondsTo(&kept);
  AddFrame(measurement, 0, 1, 5004);
  AddFrame(measurement, 1, 2, 5004);
  AddFrame(measurement, std::int64_t{5'000'000} * 1000, 3, 5004);
  measurement.Finish();
  const auto& seconds = kept.of[0];
  ASSERT_EQ(seconds.size(), std::size_t{SecondCutter::kMostAtOnce} + 2);
  EXPECT_EQ(seconds[3600].length_ns, 5'000'000 * kSecond + 700 * kMs - 3600 * kSecond - 700 * kMs);
  std::uint64_t frames = 0;
  for (const StreamSecond& second : seconds) {
    frames += second.frames;
  }
  EXPECT_EQ(frames, 3U);
}

}  // namespace
}  // namespace ipplay::measure
