// SPDX-License-Identifier: MIT
#include "host/measure/results/event_lines.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <vector>

#include "frame_builder.h"
#include "host/measure/figures/measurement.h"

namespace ipplay::measure {
namespace {

using nlohmann::json;
using testing::Bytes;
using testing::UdpFrame;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t k2026 = 1'767'225'600 * kSecond;  // 2026-01-01 00:00 UTC

struct Lines {
  std::vector<json> lines;

  EventLines::Write Writer() {
    return [this](std::string_view line) {
      ASSERT_EQ(line.find('\n'), line.size() - 1);
      lines.push_back(json::parse(line));
    };
  }
};

TEST(EventLines, BoundsEachKindInASecondAndCountsWhatItLeavesOut) {
  const StreamTable streams(MeasurementSettings{}, nullptr);
  Lines out;
  EventLines events(out.Writer(), streams);
  events.Start({.version = "1.2", .started_ns = k2026 + 5, .options = {{"--json", "true"}}});
  for (int i = 0; i < 50; ++i) {
    events.Report({.time_ns = k2026 + i, .kind = EventKind::kChecksum, .amount = 17});
  }
  events.Report({.time_ns = k2026, .kind = EventKind::kLoss, .amount = 3});
  events.Report({.time_ns = k2026 + kSecond, .kind = EventKind::kChecksum, .amount = 4});
  events.Report({.time_ns = k2026 + kSecond - 1, .kind = EventKind::kPts, .amount = 800});
  events.Finish(k2026 + 2 * kSecond);

  ASSERT_EQ(out.lines.size(), 1U + 20 + 1 + 1 + 1 + 1 + 1);
  EXPECT_EQ(out.lines[0], (json{{"time", "2026-01-01T00:00:00.000000005Z"},
                                {"time_ns", k2026 + 5},
                                {"event", "start"},
                                {"schema", 1},
                                {"version", "1.2"},
                                {"options", {{{"name", "--json"}, {"value", "true"}}}}}));
  EXPECT_EQ(out.lines[20]["event"], "checksum");
  EXPECT_EQ(out.lines[20]["protocol"], 17);
  EXPECT_EQ(out.lines[21]["packets"], 3);
  EXPECT_EQ(out.lines[22]["event"], "left_out");
  EXPECT_EQ(out.lines[22]["of"], "checksum");
  EXPECT_EQ(out.lines[22]["count"], 30);
  EXPECT_EQ(out.lines[23]["protocol"], 4);
  EXPECT_EQ(out.lines[24]["event"], "pts");  // of the second before, and no new second
  EXPECT_EQ(out.lines[25]["events"], 53);
  EXPECT_EQ(out.lines[25]["left_out"], 30);
}

// A stream of one datagram each 100 ms, at half the size from 12 s on, with a wrong IPv4 checksum
// each, as the builder makes them.
TEST(EventLines, NamesTheStreamAndSaysWhenTheRateAndTheChecksumsAreOff) {
  Measurement measurement{MeasurementSettings{}};
  Lines out;
  EventLines events(out.Writer(), measurement.Streams());
  measurement.Events().ForwardTo(&events);
  for (int i = 0; i < 200; ++i) {
    const Bytes frame = UdpFrame(Bytes(i < 120 ? 1000 : 500, 0x55));
    measurement.Add(LinkType::kEthernet, {k2026 + i * kSecond / 10, {frame, frame.size()}});
  }
  measurement.Finish();
  std::vector<json> rates;
  std::size_t checksums = 0;
  for (const json& line : out.lines) {
    EXPECT_EQ(line["stream"], 0);
    EXPECT_EQ(line["destination"], "239.1.1.1:5004");
    checksums += line["event"] == "checksum" ? 1U : 0U;
    if (line["event"] == "rate") {
      rates.push_back(line);
    }
  }
  EXPECT_EQ(checksums, 200U);
  ASSERT_EQ(rates.size(), 1U);
  EXPECT_EQ(rates[0]["time_ns"], k2026 + 13 * kSecond);
  EXPECT_EQ(rates[0]["rate_bps"], 40'000);
}

}  // namespace
}  // namespace ipplay::measure
