// SPDX-License-Identifier: MIT
#include "host/measure/results/limits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "frame_builder.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;
using testing::RtpPacket;
using testing::TsPacketBytes;
using testing::TsPayload;
using testing::UdpFrame;

constexpr std::int64_t kMs = 1'000'000;

// A datagram every 4 ms, seven packets of one PID with a clock in the first.
enum class Payload { kClock, kNoClock, kOther, kNulls };

struct StreamOf {
  bool rtp = true;
  Payload payload = Payload::kClock;
  int datagrams = 500;
  int every = 1;         // of them one comes
  int cut_every = 0;     // one of so many is cut
  bool restart = false;  // numbers begin anew half way
};

Bytes PayloadOf(Payload kind, int number) {
  if (kind == Payload::kOther) {
    return Bytes(100, static_cast<std::uint8_t>(number));
  }
  Bytes bytes = TsPayload(static_cast<std::uint8_t>(number * 7 % 16),
                          kind == Payload::kNulls ? 0x1FFF : 0x100);
  if (kind == Payload::kClock) {
    const Bytes first =
        TsPacketBytes({.counter = static_cast<std::uint8_t>(number * 7 % 16),
                       .pcr = std::uint64_t{108'000} * static_cast<unsigned>(number)});
    std::ranges::copy(first, bytes.begin());
  }
  return bytes;
}

void Add(Measurement& measurement, const StreamOf& stream, std::uint16_t port, int number) {
  if (number >= stream.datagrams || number % stream.every != 0) {
    return;
  }
  Bytes payload = PayloadOf(stream.payload, number);
  if (stream.rtp) {
    const int restart = stream.restart && number >= stream.datagrams / 2 ? 30'000 : 0;
    testing::RtpFields fields{.ssrc = port};
    fields.sequence_number = static_cast<std::uint16_t>(number + restart);
    fields.timestamp = static_cast<std::uint32_t>(360 * number);
    payload = RtpPacket(fields, payload);
  }
  const Bytes frame = UdpFrame(payload, port);
  const bool cut = stream.cut_every > 0 && number % stream.cut_every == 1;
  const auto bytes = std::span(frame).first(cut ? 150 : frame.size());
  measurement.Add(LinkType::kEthernet, {number * 4 * kMs, {bytes, frame.size()}});
}

// The limits that are met although they allow anything.
std::set<std::string> MetOf(const std::vector<StreamOf>& streams) {
  MeasurementSettings settings;
  settings.expected_rate = 10e6;
  Measurement measurement(settings);
  for (int number = 0; number < 500; ++number) {
    for (std::size_t i = 0; i < streams.size(); ++i) {
      Add(measurement, streams[i], static_cast<std::uint16_t>(5000 + 2 * i), number);
    }
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  std::set<std::string> met;
  for (const LimitKind& kind : LimitKinds()) {
    const auto verdicts = Judge(summary, {.limits = {{&kind, 1e18, false}}, .min_streams = 0});
    EXPECT_EQ(verdicts.back().name, kind.option);
    if (verdicts.back().met) {
      met.insert(kind.option);
    }
  }
  return met;
}

// Limits that allow anything, and are not met because the figure is not known for every stream.
TEST(Limits, AreNotMetByWhatIsNotKnown) {
  const struct {
    const char* name;
    std::vector<StreamOf> streams;
    const char* not_met;  // beyond those of a stream without FEC and tables
  } cases[] = {
      {"RTP", {{}}, ""},
      {"UDP", {{.rtp = false}}, "--max-jitter --max-unrepaired --max-reordered --max-duplicates"},
      {"nothing",
       {},
       "--max-p99 --max-gap --max-silence --max-peak-to-peak --max-jitter --max-loss "
       "--max-unrepaired --max-reordered --max-duplicates --max-rate-error --max-checksum-errors "
       "--max-df --max-mlr --max-ts-errors --max-ts-errors-2 --max-pcr-accuracy --max-pcr-jitter"},
      {"one datagram beside another stream",
       {{}, {.datagrams = 1}},
       "--max-p99 --max-peak-to-peak --max-jitter --max-rate-error --max-df "
       "--max-pcr-accuracy --max-pcr-jitter"},
      {"every other one lost", {{.every = 2}}, "--max-peak-to-peak --max-pcr-accuracy --max-df"},
      {"RTP of something else beside",
       {{}, {.payload = Payload::kOther}},
       "--max-ts-errors --max-ts-errors-2 --max-pcr-accuracy --max-pcr-jitter"},
      {"UDP of something else beside",
       {{}, {.rtp = false, .payload = Payload::kOther}},
       "--max-loss --max-mlr --max-ts-errors --max-ts-errors-2 --max-pcr-accuracy "
       "--max-pcr-jitter"},
      {"a stream without a clock beside",
       {{}, {.payload = Payload::kNoClock}},
       "--max-pcr-accuracy --max-pcr-jitter"},
      {"null packets over UDP beside",
       {{}, {.rtp = false, .payload = Payload::kNulls}},
       "--max-loss --max-mlr --max-pcr-accuracy --max-pcr-jitter"},
      {"UDP, some frames cut",
       {{}, {.rtp = false, .cut_every = 50}},
       "--max-loss --max-mlr --max-checksum-errors --max-ts-errors --max-ts-errors-2 "
       "--max-pcr-accuracy --max-pcr-jitter"},
      {"numbers begin anew", {{.restart = true}}, "--max-loss --max-unrepaired --max-mlr"},
  };
  for (const auto& c : cases) {
    std::set<std::string> expected;
    for (const LimitKind& kind : LimitKinds()) {
      expected.insert(kind.option);
    }
    // The stream has no tables, so there is nothing of the third priority to judge it by.
    expected.erase("--max-ts-errors-3");
    std::istringstream words(c.not_met);
    for (std::string word; words >> word;) {
      EXPECT_EQ(expected.erase(word), 1U) << word;
    }
    EXPECT_EQ(MetOf(c.streams), expected) << c.name;
  }
}

// Streams that end one after the other, each with a clock on 255 PIDs: memory runs out.
TEST(Limits, AreNotMetByStreamsThatWereNotLookedIntoToTheEnd) {
  MeasurementSettings settings;
  settings.memory_bytes = std::uint64_t{8} << 20;
  Measurement measurement(settings);
  std::int64_t time_ns = 0;
  for (std::uint16_t port = 5000; port < 5100; ++port) {
    for (unsigned datagram = 0; datagram < 37; ++datagram) {
      Bytes payload;
      for (unsigned i = 0; i < 7; ++i) {
        const Bytes packet =
            TsPacketBytes({.pid = static_cast<std::uint16_t>(0x20 + (datagram * 7 + i) % 255),
                           .pcr = std::uint64_t{27} * static_cast<std::uint64_t>(time_ns / 1000)});
        payload.insert(payload.end(), packet.begin(), packet.end());
      }
      const Bytes frame = UdpFrame(payload, port);
      measurement.Add(LinkType::kEthernet, {time_ns += kMs, {frame, frame.size()}});
    }
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  ASSERT_GT(summary.total.given_up.details, 0U);
  ASSERT_EQ(summary.FramesNotMeasured(), 0U);
  for (const LimitKind& kind : LimitKinds()) {
    const std::string option = kind.option;
    if (option == "--max-loss" || option == "--max-mlr" || option == "--max-ts-errors") {
      const auto verdicts = Judge(summary, {.limits = {{&kind, 1e18, false}}, .min_streams = {}});
      EXPECT_FALSE(AllMet(verdicts)) << option;
    }
  }
}

}  // namespace
}  // namespace ipplay::measure
