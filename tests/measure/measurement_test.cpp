// SPDX-License-Identifier: MIT
#include "host/measure/figures/measurement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>

#include "frame_builder.h"
#include "host/base/heap.h"
#include "host/measure/results/json_view.h"
#include "host/measure/results/report_html.h"
#include "host/measure/results/summary.h"
#include "host/measure/results/table_view.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;
using testing::RtpPacket;
using testing::TsPacketBytes;
using testing::TsPayload;
using testing::UdpFrame;

constexpr std::int64_t kMs = 1'000'000;

void AddRtp(Measurement& measurement, std::uint16_t number, std::int64_t time_ns,
            std::size_t captured = SIZE_MAX) {
  const Bytes frame = UdpFrame(RtpPacket({.sequence_number = number},
                                         TsPayload(static_cast<std::uint8_t>(number * 7 % 16))));
  const auto bytes = std::span(frame).first(std::min(captured, frame.size()));
  measurement.Add(LinkType::kEthernet, {time_ns, {bytes, frame.size()}});
}

TEST(Measurement, CutFramesAreCountedButTheirPayloadIsNot) {
  Measurement measurement{MeasurementSettings{}};
  for (std::uint16_t i = 0; i < 10; ++i) {
    AddRtp(measurement, i == 5 ? 6 : i, i * kMs, 128);
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  ASSERT_EQ(summary.streams.size(), 1U);
  const StreamSummary& stream = summary.streams[0];
  EXPECT_EQ(stream.rate.payload_bytes, 10U * 1316);
  EXPECT_EQ(stream.rtp->lost, 1U);
  EXPECT_EQ(stream.rtp->duplicates, 1U);
  EXPECT_EQ(stream.checksums.bad_udp, 0U);
  EXPECT_FALSE(stream.ts);
}

// A thousand packets, ten in a frame, of which the tenth is shorter.
TEST(Measurement, TakesJoinedRtpPacketsApart) {
  Measurement measurement{MeasurementSettings{}};
  for (std::uint16_t i = 0; i < 1000; i = static_cast<std::uint16_t>(i + 10)) {
    Bytes joined;
    for (std::uint16_t part = i; part < i + 10; ++part) {
      Bytes payload = TsPayload(static_cast<std::uint8_t>(part * 4 % 16));
      payload.resize(188 * 4);  // TsPayload counts on, so that these do, too
      if (part % 10 == 9) {
        payload.resize(188 * 4 - 40);
      }
      const Bytes packet = RtpPacket({.sequence_number = part, .ssrc = 0x47000001}, payload);
      joined.insert(joined.end(), packet.begin(), packet.end());
    }
    const Bytes frame = UdpFrame(joined);
    measurement.Add(LinkType::kEthernet, {i * kMs, {frame, frame.size()}});
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  const StreamSummary& stream = summary.streams.at(0);
  EXPECT_EQ(summary.capture.joined_frames, 100U);
  EXPECT_EQ(summary.capture.frames, 100U);
  EXPECT_EQ(stream.rtp->received, 1000U);
  EXPECT_EQ(stream.rtp->lost, 0U);
  EXPECT_EQ(stream.rate.payload_bytes, 1000U * 752 - 100 * 40);
  EXPECT_EQ(stream.rate.frame_bytes, 1000U * (42 + 12 + 752) - 100 * 40);
}

// Packets of other numbers, and one packet alone, are none that were joined.
TEST(Measurement, LongDatagramsAreTakenForJoinedByTheirLengthAlone) {
  const struct {
    std::size_t bytes;
    std::uint64_t joined;
  } kCases[] = {{1400, 0}, {9000, 0}, {9216 - 28, 0}, {9216 - 27, 1}};
  for (const auto& c : kCases) {
    for (const bool rtp : {true, false}) {
      Measurement measurement{MeasurementSettings{}};
      for (std::uint16_t i = 0; i < 3; ++i) {
        Bytes payload = rtp ? RtpPacket({.sequence_number = i, .ssrc = 0}, Bytes(c.bytes - 12))
                            : Bytes(c.bytes, 0x55);
        const Bytes frame = UdpFrame(payload);
        measurement.Add(LinkType::kEthernet, {i * kMs, {frame, frame.size()}});
      }
      measurement.Finish();
      EXPECT_EQ(measurement.JoinedFrames(), 3 * c.joined) << c.bytes << rtp;
      EXPECT_EQ(measurement.Rate().Frames(), 3U);
    }
  }
}

// A datagram a millisecond for 10 s. The clock is put back by a second after 4 s; or one datagram
// alone is stamped a second early.
TEST(Measurement, AClockThatIsPutBackIsInNoFigure) {
  for (const bool for_good : {true, false}) {
    SCOPED_TRACE(for_good);
    Measurement measurement{MeasurementSettings{}};
    for (std::uint16_t i = 0; i < 10'000; ++i) {
      const bool early = for_good ? i >= 4000 : i == 4000;
      AddRtp(measurement, i, 50'000 * kMs + (early ? i - 1000 : i) * kMs);
    }
    measurement.Finish((for_good ? 60'000 - 1000 : 60'000) * kMs);
    const Summary summary = Summarize(measurement, "test", true, {});
    const StreamSummary& stream = summary.streams.at(0);
    EXPECT_EQ(summary.capture.clock_steps, for_good ? 1U : 2U);
    EXPECT_EQ(measurement.EndNs() - measurement.StartNs(), 10'000 * kMs);
    EXPECT_EQ(stream.spacing.gap.min, 1.0 * kMs);
    EXPECT_EQ(stream.spacing.gap.max, 1.0 * kMs);
    EXPECT_EQ(stream.spacing.time_reversals, 0U);
    EXPECT_LT(stream.mdi.delay_factor->max, 1.1 * kMs);
    EXPECT_DOUBLE_EQ(stream.rate.frames_per_second, 1000);
    std::vector<std::int64_t> steps;
    for (const Event& event : measurement.Events().Kept()) {
      if (event.kind == EventKind::kClockStep) {
        steps.push_back(event.amount / kMs);
      }
    }
    EXPECT_EQ(steps, for_good ? std::vector<std::int64_t>{-1000}
                              : (std::vector<std::int64_t>{-1000, 1000}));
  }
}

// PATs without a program for 2.95 s, a datagram every 10 ms, then nothing up to 9 s: the last
// second with frames was whole, and six were empty.
TEST(Measurement, SecondsBeforeAStreamEndsAreNotErrored) {
  Measurement measurement{MeasurementSettings{}};
  for (std::uint16_t i = 0; i < 295; ++i) {
    Bytes payload = TsPayload(static_cast<std::uint8_t>(i * 6 % 16));
    const Bytes pat = testing::TsPacketBytes(
        {.pid = 0,
         .counter = static_cast<std::uint8_t>(i % 16),
         .start = true,
         .payload = testing::FromHex("00 00b00d 0001c10000 0000e010 7729e856")});
    std::ranges::copy(pat, payload.end() - 188);
    const Bytes frame = UdpFrame(payload);
    measurement.Add(LinkType::kEthernet, {i * 10 * kMs, {frame, frame.size()}});
  }
  measurement.Finish(9000 * kMs);
  const Summary summary = Summarize(measurement, "test", true, {});
  const StreamSummary& stream = summary.streams.at(0);
  EXPECT_GT(stream.ts->counters.pat_errors, 0U);
  EXPECT_EQ(stream.seconds.seconds, 9U);
  EXPECT_EQ(stream.seconds.errored, 6U);
}

// A pause after the clock was put back by as much is one.
TEST(Measurement, SilenceBehindAClockStepIsSilence) {
  Measurement measurement{MeasurementSettings{}};
  for (std::uint16_t i = 0; i < 1000; ++i) {
    const std::int64_t clock = i < 500 ? 50'000 : 48'000;
    AddRtp(measurement, i, (clock + i + (i >= 503 ? 2000 : 0)) * kMs);
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  EXPECT_EQ(summary.capture.clock_steps, 1U);
  EXPECT_EQ(summary.streams.at(0).longest_silence, 2001.0 * kMs);
}

// A datagram every 10 ms with a PCR in each, of which every ninth was captured in part, and 100
// to 104 are missing.
TEST(Measurement, CutFramesAmongWholeOnesAreNoLoss) {
  for (const bool has_rtp : {true, false}) {
    SCOPED_TRACE(has_rtp);
    Measurement measurement{MeasurementSettings{}};
    for (std::uint16_t i = 0; i < 500; ++i) {
      Bytes payload = TsPayload(static_cast<std::uint8_t>(i * 7 % 16));
      const Bytes clock = testing::TsPacketBytes(
          {.counter = static_cast<std::uint8_t>(i * 7 % 16), .pcr = std::uint64_t{i} * 270'000});
      std::ranges::copy(clock, payload.begin());
      const Bytes frame = UdpFrame(has_rtp ? RtpPacket({.sequence_number = i}, payload) : payload);
      const auto captured = std::span(frame).first(i % 9 == 8 ? 400 : frame.size());
      if (i < 100 || i >= 105) {
        measurement.Add(LinkType::kEthernet, {i * 10 * kMs, {captured, frame.size()}});
      }
    }
    measurement.Finish();
    const Summary summary = Summarize(measurement, "test", false, {});
    const StreamSummary& stream = summary.streams.at(0);
    EXPECT_EQ(stream.cut_frames, 55U);
    EXPECT_EQ(stream.Lost(), has_rtp ? 5U : 35U);
    EXPECT_EQ(stream.ts->counters.continuity_errors, 1U);
    EXPECT_EQ(stream.ts->missing_by_pcr, 35U);
    EXPECT_EQ(stream.ts->sync_losses, 0U);
    const PcrFigures& pcr = *stream.ts->Reference();
    EXPECT_EQ(pcr.discontinuity_errors, 0U);
    EXPECT_EQ(pcr.repetition_errors, 1U);  // 60 ms over the loss
    EXPECT_EQ(pcr.interval.min_ns, 10 * kMs);
  }
}

TEST(Measurement, JudgesTheTransportStreamBehindWhatRtpRepairs) {
  Measurement measurement{MeasurementSettings{}};
  std::int64_t time = 0;
  for (const int number : {0, 1, 2, 4, 3, 5, 5, 6, 8, 9}) {  // 3 late, 5 twice, 7 missing
    AddRtp(measurement, static_cast<std::uint16_t>(number), time += kMs);
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  const StreamSummary& stream = summary.streams.at(0);
  EXPECT_EQ(stream.rtp->repaired, 1U);
  EXPECT_EQ(stream.ts->counters.continuity_errors, 1U);  // 6 to 8
  EXPECT_EQ(stream.ts->counters.packets, 9U * 7);
  // 2 to 4, 4 to 3, 3 to 5, 5 to 5, 6 to 8
  EXPECT_EQ(stream.ts->continuity_errors_as_arrived, 5U);
}

TEST(Measurement, LossIsMarkedWhereTheCaptureItselfDropped) {
  Measurement measurement{MeasurementSettings{}};
  std::int64_t time = 0;
  for (const int i : {0, 1, 4, 5}) {
    AddRtp(measurement, static_cast<std::uint16_t>(i), time += kMs);
  }
  measurement.Finish();
  for (const std::uint64_t drops : {0U, 2U}) {
    const Summary summary = Summarize(measurement, "eth0", true, {.by_kernel = drops});
    const Limit limit{&LimitKinds()[5], 2, false};
    ASSERT_STREQ(limit.kind->option, "--max-loss");
    const auto verdicts = Judge(summary, {.limits = {limit}, .min_streams = {}});
    EXPECT_EQ(AllMet(verdicts), drops == 0);
    const std::string table = ResultTable(summary, verdicts, {});
    EXPECT_NE(table.find("  3 ms  "), std::string::npos);  // not 0.0 s
    EXPECT_EQ(table.find("lost 2*") != std::string::npos, drops > 0);
    EXPECT_NE(table.find("dropped by the capture " + std::to_string(drops)), std::string::npos);
    const auto json = nlohmann::json::parse(JsonText(summary, verdicts));
    EXPECT_EQ(json["capture"]["spoiled"], drops > 0);
    EXPECT_EQ(json["met"], drops == 0);
    EXPECT_EQ(json["total"]["lost"], 2);
    EXPECT_FALSE(json["streams"][0]["rtp"].contains("jitter_ns"));  // time stamps stand still
  }
}

// 10 s in which one stream ends at 5 s and another begins at 7 s, each with a datagram every 10 ms.
TEST(Measurement, TimeOutsideOfAStreamsFramesCounts) {
  for (const std::optional<std::int64_t> clock : {std::optional<std::int64_t>{}, {20'000 * kMs}}) {
    Measurement measurement{MeasurementSettings{}};
    for (int at = 0; at < 10'000; at += 10) {
      for (const std::uint16_t port : std::initializer_list<std::uint16_t>{5004, 5006, 5008}) {
        if ((port == 5004 && at >= 5000) || (port == 5006 && at < 7000)) {
          continue;
        }
        const Bytes frame =
            UdpFrame(RtpPacket({.sequence_number = static_cast<std::uint16_t>(at / 10)},
                               TsPayload(static_cast<std::uint8_t>(at / 10 * 7 % 16))),
                     port);
        measurement.Add(LinkType::kEthernet, {at * kMs, {frame, frame.size()}});
      }
    }
    // Of the one that has ended, while another one goes on.
    EXPECT_EQ(measurement.Events().CountOf(EventKind::kSilenceBegan), 1U);
    EXPECT_EQ(measurement.Events().CountOf(EventKind::kSilence), 0U);
    measurement.Finish(clock);
    const Summary summary = Summarize(measurement, "test", false, {});
    const double end = clock ? 20'000 : 9990;
    const struct {
      double at_start, at_end;
    } truth[] = {{0, end - 4990}, {0, end - 9990}, {7000, end - 9990}};
    for (std::size_t i = 0; i < 3; ++i) {
      const StreamSummary& stream = summary.streams[i];
      EXPECT_EQ(stream.silent_at_start, truth[i].at_start * kMs);
      EXPECT_EQ(stream.silent_at_end, truth[i].at_end * kMs);
      const double longest = std::max({10.0, truth[i].at_start, truth[i].at_end});
      EXPECT_EQ(stream.longest_silence, longest * kMs);
      EXPECT_EQ(stream.spacing.gap.max, longest * kMs);
      EXPECT_NEAR(stream.mdi.delay_factor->max, std::max(10.0, truth[i].at_end) * kMs, 1e4);
    }
    EXPECT_EQ(measurement.Events().CountOf(EventKind::kSilenceBegan), clock ? 3U : 1U);
    EXPECT_EQ(measurement.Events().CountOf(EventKind::kSilence), clock ? 4U : 2U);
  }
}

// Seconds since 1970 that pcapng can state, and steps between the ends of what pcap can.
TEST(Measurement, TimesAtTheirLimitsDoNoHarm) {
  Measurement measurement{MeasurementSettings{}};
  for (const std::int64_t time : {INT64_MAX, INT64_MIN, std::int64_t{0}, INT64_MAX, INT64_MIN,
                                  std::int64_t{4'294'967'295} * 1'000'000'000, INT64_MAX}) {
    AddRtp(measurement, static_cast<std::uint16_t>(measurement.CapturedFrames()), time);
  }
  measurement.Finish(INT64_MAX);
  const Summary summary = Summarize(measurement, "test", false, {});
  EXPECT_NE(ResultTable(summary, {}, {}).find("7 frames"), std::string::npos);
}

// Streams that each have hundreds of clocks, more than there is memory for.
TEST(Measurement, MemoryHasACeiling) {
  constexpr std::int64_t kCeiling = std::int64_t{8} << 20;
  constexpr std::uint64_t kStreams = 200;
  const std::int64_t before = HeapBytes();
  Measurement measurement{{.memory_bytes = kCeiling}};
  std::int64_t most = 0;
  std::int64_t time = 0;
  for (std::uint32_t pid = 0x100; pid < 0x200; ++pid) {
    for (std::uint16_t port = 0; port < kStreams; ++port) {
      const Bytes packet =
          TsPacketBytes({.pid = static_cast<std::uint16_t>(pid), .pcr = 27'000U * pid});
      const Bytes frame =
          UdpFrame(RtpPacket({.sequence_number = static_cast<std::uint16_t>(pid)}, packet),
                   static_cast<std::uint16_t>(5000 + port));
      measurement.Add(LinkType::kEthernet, {time += kMs, {frame, frame.size()}});
      most = std::max(most, HeapBytes() - before);
    }
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  std::ignore = JsonText(summary, {});
  EXPECT_LT(most, kCeiling);
  const TotalSummary& total = summary.total;
  EXPECT_GT(total.given_up.plots, 0U);
  EXPECT_GT(total.given_up.details, 0U);
  EXPECT_GT(total.frames_without_detail, 0U);
  std::uint64_t frames = total.untracked_frames;
  for (const StreamSummary& stream : summary.streams) {
    frames += stream.rate.frames;
  }
  EXPECT_EQ(frames, 256 * kStreams);
  EXPECT_EQ(summary.FramesNotMeasured(), total.untracked_frames + total.frames_without_detail);
  EXPECT_NE(ResultTable(summary, {}, {}).find("left out for memory (--memory 8M): plots of "),
            std::string::npos);
}

// What waits to be put in order is found to be damaged late, and is of the second in which it came.
TEST(Measurement, AnErrorIsOfTheSecondInWhichItsFrameCame) {
  struct Case {
    std::vector<int> lost;  // frames of 2 ms
    std::uint64_t errored;
  };
  // The stream has no PAT, which is an error of its first second.
  for (const Case& c : {Case{{}, 1}, Case{{990}, 2}, Case{{990, 1240}, 3}, Case{{1500, 1501}, 2},
                        Case{{499, 999}, 3}}) {
    Measurement measurement{MeasurementSettings{}};
    for (int i = 0; i < 2000; ++i) {
      if (std::ranges::find(c.lost, i) == c.lost.end()) {
        AddRtp(measurement, static_cast<std::uint16_t>(i), (1000 + 2 * i) * kMs);
      }
    }
    measurement.Finish((1000 + 3999) * kMs);
    const Summary summary = Summarize(measurement, "test", false, {});
    EXPECT_EQ(summary.streams.at(0).seconds.errored, c.errored)
        << c.lost.size() << " from " << (c.lost.empty() ? 0 : c.lost.front());
  }
}

// A limit is met by what was looked at only.
TEST(Measurement, WhatWasNotMeasuredMeetsNoLimit) {
  const auto limit = [](const char* option) {
    const auto kind = std::ranges::find(LimitKinds(), std::string(option), &LimitKind::option);
    return Limit{&*kind, 0, false};
  };
  const struct {
    const char* name;
    MeasurementSettings settings;
    const char* option;
    std::size_t captured;
    bool fragment;
  } cases[] = {
      {"untracked", {.max_streams = 1}, "--max-loss", SIZE_MAX, false},
      {"cut", {.max_streams = 2}, "--max-checksum-errors", 200, false},
      {"fragment", {.max_streams = 2}, "--max-loss", SIZE_MAX, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const bool disturbed : {false, true}) {
      Measurement measurement{c.settings};
      for (std::uint16_t i = 0; i < 10; ++i) {
        Bytes frame = UdpFrame(
            RtpPacket({.sequence_number = i}, TsPayload(static_cast<std::uint8_t>(i * 7 % 16))),
            disturbed && i == 9 && c.settings.max_streams == 1 ? 9 : 5004);
        frame[20] = disturbed && c.fragment && i == 9 ? 0x20 : 0;
        const std::size_t length =
            disturbed && i == 9 ? std::min(c.captured, frame.size()) : frame.size();
        measurement.Add(LinkType::kEthernet,
                        {i * kMs, {std::span(frame).first(length), frame.size()}});
      }
      measurement.Finish();
      Limit judged = limit(c.option);
      judged.value = 10;  // the header checksums of these frames are wrong
      const auto verdicts =
          Judge(Summarize(measurement, "test", false, {}), {.limits = {judged}, .min_streams = {}});
      EXPECT_EQ(AllMet(verdicts), !disturbed);
    }
  }
}

// Plain UDP, 100 datagrams of seven packets: loss in transport packets, and copies are none.
TEST(Measurement, LossOfPlainUdpIsInTransportPackets) {
  Measurement measurement{MeasurementSettings{}};
  for (int i = 0; i < 100; ++i) {
    if (i == 50) {
      continue;  // 7 of 700
    }
    const Bytes frame = UdpFrame(TsPayload(static_cast<std::uint8_t>(i * 7 % 16)));
    for (int copy = 0; copy < (i % 10 == 0 ? 2 : 1); ++copy) {
      measurement.Add(LinkType::kEthernet, {i * kMs, {frame, frame.size()}});
    }
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  EXPECT_EQ(summary.total.lost, 0U);
  EXPECT_EQ(summary.total.lost_ts_packets, 7U);
  EXPECT_EQ(summary.total.repeated_datagrams, 9U);
  EXPECT_EQ(summary.total.ts_expected, 700U);
  EXPECT_EQ(summary.streams[0].ts->counters.continuity_errors, 1U);
  const auto loss = std::ranges::find(LimitKinds(), std::string("--max-loss"), &LimitKind::option);
  for (const double percent : {0.99, 1.0}) {
    const auto verdicts = Judge(summary, {.limits = {{&*loss, percent, true}}, .min_streams = {}});
    EXPECT_EQ(AllMet(verdicts), percent == 1.0);
  }
}

// 40 ms, a datagram every millisecond: the plots have lines, and what they say is so.
TEST(Report, ShowsTheCourseOfAShortCapture) {
  Measurement measurement{MeasurementSettings{}};
  for (std::uint16_t i = 0; i < 40; ++i) {
    AddRtp(measurement, i, 1'000'000 * kMs + i * kMs);
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  const std::string page = ReportHtml({summary, measurement, {}, {}, ""});
  EXPECT_NE(page.find("mean from 1 ms to 1 ms; longest from 1 ms to 1 ms; 0 outages"),
            std::string::npos);
}

TEST(Report, IsOnePageThatNeedsNothingElseAndTrustsNoText) {
  Measurement measurement{MeasurementSettings{}};
  for (std::uint16_t i = 0; i < 50; ++i) {
    AddRtp(measurement, i, i * 100 * kMs);
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "<script>eth0&", false, {});
  const std::string page =
      ReportHtml({summary, measurement, {}, {{"--filter", "\"<b>"}}, "2030-01-01"});
  EXPECT_NE(page.find("&lt;script&gt;eth0&amp;"), std::string::npos);
  EXPECT_NE(page.find("&quot;&lt;b&gt;"), std::string::npos);
  for (const char* foreign : {"<script", "http:", "https:", "src=", "@import", "nan", "inf\""}) {
    EXPECT_EQ(page.find(foreign), std::string::npos) << foreign;
  }
}

// Nine streams of a frame each 20 ms; the last one pauses from 4 s to 7 s.
TEST(Report, ShowsTheWorstStreamFirstAndItsHoleAsOne) {
  constexpr std::uint32_t kStreams = 9;
  Measurement measurement{MeasurementSettings{}};
  for (std::uint16_t i = 0; i < 500; ++i) {
    for (std::uint32_t ssrc = 1; ssrc <= kStreams; ++ssrc) {
      if (ssrc == kStreams && i >= 200 && i < 350) {
        continue;
      }
      const Bytes frame = UdpFrame(RtpPacket({.sequence_number = i, .ssrc = ssrc}, TsPayload(0)));
      measurement.Add(LinkType::kEthernet, {i * 20 * kMs + ssrc, {frame, frame.size()}});
    }
  }
  measurement.Finish();
  const Summary summary = Summarize(measurement, "test", false, {});
  const std::string page = ReportHtml({summary, measurement, {}, {}, ""});
  std::vector<std::string> sections;
  for (std::size_t at = page.find("<details"); at != std::string::npos;) {
    const std::size_t next = page.find("<details", at + 1);
    sections.push_back(page.substr(at, next - at));
    at = next;
  }
  ASSERT_EQ(sections.size(), 8U);
  for (std::size_t i = 0; i < sections.size(); ++i) {
    const bool is_worst = i == 0;
    EXPECT_EQ(sections[i].find("SSRC 00000009</h2>") != std::string::npos, is_worst);
    EXPECT_EQ(sections[i].find("class=\"out\"") != std::string::npos, is_worst);
    const std::size_t line = sections[i].find("class=\"l1\" d=\"");  // rate over time
    const std::string path = sections[i].substr(line, sections[i].find("/>", line) - line);
    EXPECT_EQ(std::ranges::count(path, 'M'), is_worst ? 2 : 1) << path;
  }
  // Whatever the terminal says of a stream.
  for (const FigureLine& figure : FigureLines(summary.streams.at(kStreams - 1))) {
    EXPECT_TRUE(figure.name == "TR 101 290" || sections[0].find(figure.text) != std::string::npos)
        << figure.text;
  }
}

TEST(Report, BearsAMeasurementOfNothing) {
  Measurement measurement{MeasurementSettings{}};
  measurement.Finish();
  const Summary summary = Summarize(measurement, "eth0", true, {});
  EXPECT_NE(ReportHtml({summary, measurement, {}, {}, ""}).find("Nothing to show"),
            std::string::npos);
  EXPECT_NE(ResultTable(summary, {}, {}).find("0 frames"), std::string::npos);
}

}  // namespace
}  // namespace ipplay::measure
