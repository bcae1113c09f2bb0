// SPDX-License-Identifier: MIT
#include "host/measure/figures/stream_table.h"

#include <gtest/gtest.h>

#include "frame_builder.h"
#include "host/measure/figures/measurement.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;
using testing::RtpPacket;
using testing::TsPayload;
using testing::UdpFrame;

const Bytes kNoTs(500, 0x80);  // reads as RTP version 2, too

void Add(Measurement& measurement, const Bytes& payload, std::uint16_t port = 5004) {
  const Bytes frame = UdpFrame(payload, port);
  const auto time = static_cast<std::int64_t>(measurement.CapturedFrames()) * 1'000'000;
  measurement.Add(LinkType::kEthernet, {time, {frame, frame.size()}});
}

// The SSRCs of the streams found; 0 for a stream without RTP.
std::vector<std::uint32_t> StreamsOf(Measurement& measurement) {
  measurement.Finish();
  std::vector<std::uint32_t> ssrcs;
  for (const auto& stream : measurement.Streams().Streams()) {
    ssrcs.push_back(stream->Id().ssrc.value_or(0));
  }
  return ssrcs;
}

using Ssrcs = std::vector<std::uint32_t>;

TEST(StreamTable, TellsWhichFlowsCarryRtp) {
  const auto rtp = [](std::uint16_t number, std::uint32_t ssrc, const Bytes& payload) {
    return RtpPacket({.sequence_number = number, .ssrc = ssrc}, payload);
  };
  const Bytes ts = TsPayload();
  const Bytes cut(ts.begin(), ts.begin() + 1000);
  const Bytes alike{0x80, 0x80, 0x10, 0x00, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  const Bytes other{0x40, 33, 0, 1, 0, 0, 0, 0, 0x47, 0, 0, 0, 1, 2, 3};
  const struct {
    const char* name;
    std::vector<Bytes> payloads;
    Ssrcs streams;
    RtpMode mode = RtpMode::kGuess;
  } cases[] = {
      {"transport stream", {ts, ts}, {0}},
      {"RTP with a transport stream, one packet", {rtp(1, 9, ts)}, {9}},
      {"RTP with something else", {rtp(1, 9, kNoTs), rtp(2, 9, kNoTs)}, {9}},
      {"RTP with cut packets", {rtp(1, 9, cut), rtp(2, 9, cut)}, {9}},
      {"copies that differ in the SSRC", {rtp(1, 9, kNoTs), rtp(1, 10, kNoTs)}, {9, 10}},
      {"no RTP, but alike at first", {kNoTs, alike, kNoTs}, {0}},
      {"something else altogether", {Bytes{1, 2, 3}, kNoTs}, {0}},
      {"empty datagrams", {Bytes{}, Bytes{}}, {0}},
      {"of another version, as the user says", {other}, {0x47000000}, RtpMode::kAlways},
      {"no RTP, as the user says", {rtp(1, 9, ts)}, {0}, RtpMode::kNever},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Measurement measurement{MeasurementSettings{.rtp = c.mode}};
    for (const Bytes& payload : c.payloads) {
      Add(measurement, payload);
    }
    EXPECT_EQ(StreamsOf(measurement), c.streams);
    std::uint64_t frames = 0;
    for (const auto& stream : measurement.Streams().Streams()) {
      frames += stream->Rate().Frames();
    }
    EXPECT_EQ(frames, c.payloads.size());
  }
}

TEST(StreamTable, CountsChangesWithinAFlow) {
  Measurement measurement{MeasurementSettings{}};
  for (const std::uint32_t ssrc : {1U, 1U, 2U, 1U, 3U}) {
    Add(measurement, RtpPacket({.ssrc = ssrc}, TsPayload()));
  }
  Add(measurement, RtpPacket({.sequence_number = 1, .ssrc = 3, .payload_type = 96}, TsPayload()));
  Add(measurement, TsPayload());  // no RTP any more
  EXPECT_EQ(StreamsOf(measurement), (Ssrcs{1, 2, 3}));
  EXPECT_EQ(measurement.Streams().SsrcChanges(), 2U);
  EXPECT_EQ(measurement.Streams().MalformedRtp(), 1U);
  EXPECT_EQ(measurement.Streams().Streams()[2]->AsRtp()->payload_type_changes, 1U);
}

// RFC 5761: sender reports and the like may share the port, and come first.
TEST(StreamTable, TakesNoRtcpForAStream) {
  const Bytes report =
      testing::FromHex("80c80006 00000009 01020304 05060708 090a0b0c 00000001 00000002");
  Measurement measurement{MeasurementSettings{}};
  for (std::uint16_t i = 0; i < 4; ++i) {
    Add(measurement, report);
    Add(measurement, RtpPacket({.sequence_number = i, .ssrc = 9}, TsPayload()));
  }
  EXPECT_EQ(StreamsOf(measurement), (Ssrcs{9}));
  EXPECT_EQ(measurement.Streams().RtcpPackets(), 4U);
}

TEST(StreamTable, KeepsToItsLimitOfFlowsAndOfSsrcs) {
  for (const bool flows : {true, false}) {
    Measurement measurement{MeasurementSettings{.max_streams = 3}};
    for (std::uint16_t i = 1; i <= 10; ++i) {
      Add(measurement, RtpPacket({.ssrc = i}, TsPayload()), flows ? i : 5004);
    }
    EXPECT_EQ(StreamsOf(measurement), (Ssrcs{1, 2, 3}));
    EXPECT_EQ(measurement.Streams().UntrackedFrames(), 7U);
  }
}

}  // namespace
}  // namespace ipplay::measure
