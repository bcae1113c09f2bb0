// SPDX-License-Identifier: MIT
#include "host/measure/figures/tr101290.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "ts_builder.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;
using testing::FromHex;
using testing::GoodSlots;
using testing::kPatBody;
using testing::kPmtBody;
using testing::kTenSeconds;
using testing::SectionBytes;
using testing::Slot;
using testing::TsRun;
using testing::Unit;

constexpr int kHalf = kTenSeconds / 2;

enum Place : std::size_t { kPat, kPmt, kPcr, kVideoPts, kAudioPts, kAudio };

// Service information 25 ms apart at least, from phase 20 on.
Slot Si(std::uint16_t pid, std::uint8_t table_id, int every, int to = INT_MAX,
        std::uint8_t number = 0) {
  return {.pid = pid,
          .every = every,
          .phase = 20 + 200 * number + table_id,
          .payload = Unit(SectionBytes(table_id, 1, FromHex("0001 ff"), number)),
          .to = to};
}

// The audio of every packet.
void Scramble(int, Bytes& packet) {
  if (packet[1] == 0x01 && packet[2] == 0x01) {
    packet[3] = static_cast<std::uint8_t>(packet[3] | 0x80);
  }
}

// Names of the indicators with their numbers of errors.
std::map<std::string, std::uint64_t> ErrorsOf(const TsAnalysis& analysis) {
  std::map<std::string, std::uint64_t> errors;
  for (std::size_t i = 0; i < kIndicators; ++i) {
    const auto indicator = static_cast<Indicator>(i);
    if (analysis.Indicators()[indicator].count > 0) {
      errors[InfoOf(indicator).name] = analysis.Indicators()[indicator].count;
    }
  }
  return errors;
}

TEST(Indicators, EachShowsItsOwnFaultAndNoOther) {
  const Bytes moved_pat = Unit(SectionBytes(0x00, 7, FromHex("0001 e030"), 0, 0xC3));
  const Bytes next_pat = Unit(SectionBytes(0x00, 7, FromHex("0001 e030"), 0, 0xC2));
  const auto with_component = [](const char* hex) {
    Bytes body = kPmtBody;
    for (const std::uint8_t byte : FromHex(hex)) {
      body.push_back(byte);
    }
    return Unit(SectionBytes(0x02, 1, body));
  };
  const struct {
    const char* name;
    std::function<void(TsRun&)> change;
    std::map<std::string, std::uint64_t> errors;
  } cases[] = {
      {"nothing", [](TsRun&) {}, {}},
      {"no PAT", [](TsRun& r) { r.slots[kPat].to = 0; }, {{"pat", 1}}},
      {"the PAT stops", [](TsRun& r) { r.slots[kPat].to = kHalf; }, {{"pat", 1}}},
      {"PATs every 504 ms", [](TsRun& r) { r.slots[kPat].every = 3500; }, {{"pat", 20}}},
      {"another table in place of a PAT",
       [](TsRun& r) {
         r.slots.push_back({.pid = 0,
                            .phase = 300,
                            .payload = Unit(SectionBytes(0x42, 1, {})),
                            .from = kHalf,
                            .to = kHalf + 700});
       },
       {{"pat", 1}}},
      {"the PMT stops", [](TsRun& r) { r.slots[kPmt].to = kHalf; }, {{"pmt", 1}}},
      {"the PMT moves with a new PAT",
       [&](TsRun& r) {
         Slot pat = r.slots[kPat];
         Slot pmt = r.slots[kPmt];
         r.slots[kPat].to = r.slots[kPmt].to = pat.from = pmt.from = kHalf;
         pat.payload = moved_pat;
         pmt.pid = 0x30;
         r.slots.insert(r.slots.end(), {pat, pmt});
       },
       {}},
      {"a PAT that is not yet in force",
       [&](TsRun& r) { r.slots.push_back({.pid = 0, .phase = 300, .payload = next_pat}); },
       {}},
      {"video that never comes",
       [&](TsRun& r) { r.slots[kPmt].payload = with_component("1b e102 f000"); },
       {{"pid", 1}}},
      {"audio for the impaired, and data, that never come",
       [&](TsRun& r) {
         r.slots[kPmt].payload = with_component("03 e102 f006 0a04 64657503  05 e103 f000");
       },
       {}},
      {"audio stops",
       [](TsRun& r) { r.slots[kAudio].to = r.slots[kAudioPts].to = kHalf - 700; },
       {{"pid", 1}, {"pts", 1}}},
      {"PCRs stop", [](TsRun& r) { r.slots[kPcr].to = kHalf; }, {{"pcr_repetition", 1}}},
      {"PCRs never come", [](TsRun& r) { r.slots[kPcr].pcr = false; }, {{"pcr_repetition", 1}}},
      {"PCRs every 39.888 ms",
       [](TsRun& r) {
         r.slots[kPcr].every = 277;
         std::swap(r.slots[kPcr], r.slots[0]);  // none gives way to a table
       },
       {}},
      // From packet 2 on up to 70,000: 252.
      {"PCRs every 40.032 ms",
       [](TsRun& r) {
         r.slots[kPcr].every = 278;
         std::swap(r.slots[kPcr], r.slots[0]);
       },
       {{"pcr_repetition", 251}}},
      {"PCRs of another stream from half on",
       [](TsRun& r) {
         r.change = [](int i, Bytes& b) {
           b[6] = static_cast<std::uint8_t>(b[6] + (i > kHalf && (b[3] & 0x20) != 0 ? 1 : 0));
         };
       },
       {{"pcr_discontinuity", 1}}},
      {"presentation times stop", [](TsRun& r) { r.slots[kVideoPts].to = kHalf; }, {{"pts", 1}}},
      {"damaged packets, as they say",
       [](TsRun& r) { r.change = [](int i, Bytes& b) { b[1] |= i % 10'500 == 62 ? 0x80 : 0; }; },
       {{"transport", 7}}},
      {"damaged packets whose PID and counter are wrong, too",
       [](TsRun& r) {
         r.change = [](int i, Bytes& b) {
           if (i % 10'500 == 62) {
             b[1] = 0x87;
             b[3] = 0x1C;
           }
         };
       },
       {{"transport", 7}}},
      {"damaged sync bytes",
       [](TsRun& r) { r.change = [](int i, Bytes& b) { b[0] ^= i % 10'500 == 62 ? 1 : 0; }; },
       {{"sync_byte", 7}}},
      {"scrambled without CAT", [](TsRun& r) { r.change = Scramble; }, {{"cat", 1}}},
      {"scrambled with CAT",
       [](TsRun& r) {
         r.change = Scramble;
         r.slots.push_back({.pid = 1, .phase = 30, .payload = Unit(SectionBytes(0x01, 65535, {}))});
       },
       {}},
      {"a PID that nothing names",
       [](TsRun& r) { r.slots.push_back({.pid = 0x300, .phase = 30}); },
       {{"unreferenced_pid", 1}}},
      {"service information as it should be",
       [](TsRun& r) {
         for (const Slot& slot :
              {Si(0x10, 0x40, 35'000), Si(0x11, 0x42, 7000), Si(0x11, 0x46, 35'000),
               Si(0x11, 0x4A, 35'000), Si(0x12, 0x4E, 7000), Si(0x12, 0x4E, 7000, INT_MAX, 1)}) {
           r.slots.push_back(slot);
         }
       },
       {}},
      {"NIT at the wrong PID",
       [](TsRun& r) { r.slots.push_back(Si(0x11, 0x40, 35'000)); },
       {{"sdt", 2}}},
      {"the SDT stops",
       [](TsRun& r) { r.slots.push_back(Si(0x11, 0x42, 7000, kHalf)); },
       {{"sdt", 1}}},
      {"an event without the one that follows",
       [](TsRun& r) { r.slots.push_back(Si(0x12, 0x4E, 7000)); },
       {{"eit", 1}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TsRun run{.slots = GoodSlots()};
    c.change(run);
    TsAnalysis analysis;
    Play(run, analysis);
    EXPECT_EQ(ErrorsOf(analysis), c.errors);
  }
}

TEST(Indicators, AStreamThatDiesIsJudgedToTheEndOfTheMeasurement) {
  TsRun run{.slots = GoodSlots(), .to_packet = kHalf};
  TsAnalysis analysis;
  Play(run, analysis);
  const std::map<std::string, std::uint64_t> expected{
      {"pat", 1}, {"pid", 2}, {"pmt", 1}, {"pcr_repetition", 1}, {"pts", 2}};
  EXPECT_EQ(ErrorsOf(analysis), expected);
  const auto pat = analysis.Tables().Tables().find({.pid = 0, .table_id = 0});
  // From packet 34,300, in the datagram that begins there, to packet 70,000.
  EXPECT_EQ(pat->second.intervals.max_ns, 35'700 * testing::kPacketNs);
  EXPECT_EQ(pat->second.intervals.min_ns, 100'800'000);
}

TEST(Indicators, SectionsShareAndSpanPackets) {
  // Each packet of PID 0x12 has the end of one section, whole ones, and the begin of another.
  Bytes one = SectionBytes(0x4E, 1, Bytes(60, 0));
  Bytes two = SectionBytes(0x4E, 1, Bytes(60, 0), 1);
  Bytes three = SectionBytes(0x50, 1, Bytes(100, 0));
  Bytes first = Unit(one);
  first.insert(first.end(), two.begin(), two.end());
  first.insert(first.end(), three.begin(), three.begin() + 184 - 145);
  Bytes second{static_cast<std::uint8_t>(three.size() - 39)};
  second.insert(second.end(), three.begin() + 39, three.end());
  for (const bool damaged : {false, true}) {
    if (damaged) {
      first[80] ^= 1;
      second[5] ^= 1;
    }
    TsRun run{.slots = GoodSlots()};
    run.slots.push_back({.pid = 0x12, .every = 7000, .phase = 20, .payload = first});
    run.slots.push_back({.pid = 0x12, .every = 7000, .phase = 21, .payload = second});
    TsAnalysis analysis;
    Play(run, analysis);
    EXPECT_EQ(analysis.Counters().crc_errors, damaged ? 20U : 0U);
    EXPECT_EQ(analysis.Tables().Tables().at({0x12, 0x4E, 0, 1}).sections, 10U);
    EXPECT_EQ(analysis.Tables().Tables().count({0x12, 0x50}), damaged ? 0U : 1U);
  }
}

TEST(Indicators, ErrorsAreReportedWithTheirTime) {
  struct Events : EventSink {
    void Report(const Event& event) override { events.push_back(event); }
    std::vector<Event> events;
  } sink;
  TsRun run{.slots = GoodSlots(), .lose = [](int d) { return d == 5101; }};
  run.slots.push_back({.pid = 0x101, .every = 7, .phase = 6});
  TsAnalysis analysis;
  analysis.ReportTo(&sink, 4);
  Play(run, analysis);
  ASSERT_EQ(sink.events.size(), 1U);
  EXPECT_EQ(sink.events[0].kind, EventKind::kContinuity);
  EXPECT_EQ(sink.events[0].time_ns, 5102 * 7 * testing::kPacketNs);
  EXPECT_EQ(sink.events[0].stream, 4U);
  EXPECT_EQ(sink.events[0].pid, 0x101);
}

}  // namespace
}  // namespace ipplay::measure
