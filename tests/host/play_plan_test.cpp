// SPDX-License-Identifier: MIT
#include "host/play/play_plan.h"

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

#include "host/play/frame_fields.h"

namespace ipplay {
namespace {

StreamFacts Facts(std::uint32_t packet_bytes = 188) {
  StreamFacts facts;
  facts.format.packet_bytes = packet_bytes;
  facts.bytes = 10'000 * std::uint64_t{packet_bytes == 0 ? 188 : packet_bytes};
  if (packet_bytes > 0) {
    PcrRate rate;
    rate.pid = 256;
    rate.packets_per_second = rate.lowest = rate.highest = 5000;
    rate.last_packet = 9000;
    rate.last_pcr = 9000 * kPcrHz / 5000;
    facts.rate = rate;
  }
  return facts;
}

StreamFacts OfPipe() {
  StreamFacts facts = Facts();
  facts.bytes.reset();
  return facts;
}

Path TestPath() {
  Path path;
  path.adapter.index = 3;
  path.adapter.name = "near";
  path.adapter.mac = {2, 0xAA, 0, 0, 0, 1};
  path.adapter.mtu = 1500;
  path.source = ParseIp("10.9.0.1");
  path.destination = MacAddress{1, 0, 0x5E, 1, 1, 1};
  return path;
}

// Options as on a command line. `target` decides on the version of the source address too.
Result<PlayPlan> Plan(const std::string& line, const StreamFacts& facts = Facts(),
                      std::uint32_t mtu = 1500) {
  CLI::App app;
  PlayOptions options;
  DefinePlayOptions(app, options);
  app.parse("in.ts " + line);
  Path path = TestPath();
  path.adapter.mtu = mtu;
  if (options.to.address.is_v6) {
    path.source = ParseIp("fd00::1");
  }
  return MakePlan(options, facts, path);
}

const std::string kRtp = "--to rtp://239.1.1.1:5004 ";
const std::string kUdp = "--to udp://239.1.1.1:5004 ";
const std::string kByRate = "--priority normal ";  // which no schedule has
const std::string kUdp6 = "--to udp://[ff3e::1]:5004 ";

TEST(PlayPlan, SizesAndRates) {
  const struct {
    std::string line;
    std::uint32_t packet_bytes;
    std::uint32_t headers;
    std::uint32_t payload;
    double stream_rate;  // of 5,000 packets per second
  } cases[] = {
      {kRtp, 188, 54, 1316, 7'520'000},
      {kUdp, 188, 42, 1316, 7'520'000},
      {kUdp6, 188, 62, 1316, 7'520'000},
      {kRtp + "--vlan 5", 188, 58, 1316, 7'520'000},
      {kRtp + "--protocol 2", 188, 58, 1316, 7'520'000},
      {kRtp + "--ts-per-datagram 1", 188, 54, 188, 7'520'000},
      {kRtp + "--frame-size 1500", 188, 54, 1316, 7'520'000},
      {kRtp + "--frame-size 1500 --cut", 188, 54, 1446, 7'520'000},
      {kRtp + "--ppm 100", 188, 54, 1316, 7'520'752},
      {kRtp + "--bitrate 9.75M", 188, 54, 1316, 9'750'000},
      {kRtp, 204, 54, 1428, 8'160'000},
      {kRtp, 192, 54, 1344, 7'520'000},
      {kUdp + "--bitrate 1M", 0, 42, 1316, 1'000'000},
      {kUdp + "--bitrate 1M --frame-size 1000", 0, 42, 958, 1'000'000},
  };
  for (const auto& c : cases) {
    const auto plan = Plan(c.line + (c.packet_bytes == 0 ? " --raw" : ""), Facts(c.packet_bytes));
    ASSERT_TRUE(plan) << plan.Error().message;
    EXPECT_EQ(plan->sizes.header_bytes, c.headers) << c.line;
    EXPECT_EQ(plan->sizes.payload_bytes, c.payload) << c.line;
    EXPECT_EQ(plan->sizes.frame_bytes, c.headers + c.payload) << c.line;
    EXPECT_EQ(plan->settings.params.IPPacketSize, plan->sizes.frame_bytes) << c.line;
    EXPECT_NEAR(plan->rates.stream, c.stream_rate, 1e-6) << c.line;
    // What leaves the adapter each second: a frame for every payload of stream.
    const double counted = c.packet_bytes == 192 ? c.payload * 188.0 / 192 : c.payload;
    EXPECT_NEAR(plan->settings.ip_bit_rate * 1e6,
                c.stream_rate / (counted * 8) * plan->sizes.frame_bytes * 8, 1e-3)
        << c.line;
    EXPECT_EQ(plan->settings.tts.TTSEnabled, c.packet_bytes == 192 ? 1U : 0U) << c.line;
    EXPECT_EQ(plan->settings.ts_packet_size, c.packet_bytes == 192 ? 188U : c.packet_bytes)
        << c.line;
  }
}

TEST(PlayPlan, FrameBitRateCountsHeaders) {
  const auto plan = Plan(kRtp + "--frame-bitrate 10M");
  ASSERT_TRUE(plan);
  EXPECT_DOUBLE_EQ(plan->settings.ip_bit_rate, 10);
  EXPECT_NEAR(plan->rates.stream, 10e6 * 1316 / 1370, 1e-3);
}

// Lost datagrams are none of the frames, and the stream goes on as if they had left.
TEST(PlayPlan, LossesLowerTheFrameRateNotTheStreams) {
  const auto fifth = Plan(kRtp + "--lose 2/10");
  EXPECT_DOUBLE_EQ(fifth->rates.stream, 7'520'000);
  EXPECT_NEAR(fifth->settings.ip_bit_rate, 7.52 * 1370 / 1316 * 0.8, 1e-9);
  EXPECT_EQ(fifth->settings.params.IPPacketSize, 1096U);  // 4/5 of 1,370
  EXPECT_NEAR(fifth->rates.rtp_clock_ratio, 1, 1e-6);
  EXPECT_TRUE(fifth->notes.empty());
  const auto given = Plan(kRtp + "--frame-bitrate 10M --lose 1/2");
  EXPECT_DOUBLE_EQ(given->settings.ip_bit_rate, 10);
  EXPECT_NEAR(given->rates.stream, 2 * 10e6 * 1316 / 1370, 1e-3);
  EXPECT_NEAR(Plan(kRtp + "--lose 3/3")->settings.ip_bit_rate, 7.52 * 1370 / 1316, 1e-9);
  // By the schedule a lost datagram keeps its place.
  EXPECT_NEAR(fifth->schedule.BitRate, 7.52 * 1370 / 1316, 1e-9);
  EXPECT_EQ(fifth->rates.gap.count(), 1'400'000);           // 7 packets of 5,000 a second
  const auto few = Plan(kRtp + kByRate + "--lose 2/1000");  // 0.998 x 1,370 = 1,367.26
  EXPECT_NEAR(few->rates.rtp_clock_ratio, 1367 / 1367.26, 1e-6);
  EXPECT_NE(few->notes.at(0).find("every datagram, lost or not, by 1367 bytes"), std::string::npos);
}

TEST(PlayPlan, BatchAndGap) {
  const struct {
    std::string line;
    std::uint64_t batch;
  } cases[] = {
      {kRtp + "--bitrate 10M", 1},
      {kRtp + "--bitrate 76M", 1},   // 79.1 Mbit/s of frames
      {kRtp + "--bitrate 77M", 10},  // 80.2
      {kRtp + "--bitrate 10M --copies 9", 10},
      {kRtp + "--bitrate 10M --jitter gaussian:10%", 10},
      {kRtp + "--bitrate 10M --jitter sine:10%", 200},
      {kRtp + "--bitrate 10M --jitter sine:10% --burst 7", 7},
      {kRtp + "--frame-bitrate 10M --burst 10ms", 9},  // 10 ms hold 9.1 frames of 1,370 bytes
      {kRtp + "--frame-bitrate 10M --burst 1ms", 1},
      {kRtp + "--frame-bitrate 10M --burst 10ms --copies 3", 27},  // nine of each
      {kRtp + "--burst 7 --copies 3", 21},
  };
  for (const auto& c : cases) {
    const auto plan = Plan(c.line);
    ASSERT_TRUE(plan) << plan.Error().message;
    EXPECT_EQ(plan->rates.batch, c.batch) << c.line;
  }
  EXPECT_EQ(Plan(kRtp + "--frame-bitrate 10M --copies 2")->rates.gap,
            std::chrono::microseconds(548));
}

// The clock's step for each frame is IPPacketSize x 8 / IPBitRate seconds, and it steps once for
// every copy.
TEST(PlayPlan, RtpClock) {
  const auto one = Plan(kRtp + kByRate + "--frame-size 1500");
  EXPECT_NEAR(one->rates.rtp_clock_ratio, 1, 1e-6);
  const auto two = Plan(kRtp + kByRate + "--copies 2");
  EXPECT_EQ(two->settings.params.IPPacketSize, 685U);
  EXPECT_NEAR(two->rates.rtp_clock_ratio, 1, 1e-6);
  EXPECT_TRUE(two->notes.empty());
  const auto many = Plan(kRtp + kByRate + "--copies 16");
  EXPECT_EQ(many->settings.params.IPPacketSize, 86U);
  EXPECT_NEAR(many->rates.rtp_clock_ratio, 16 * 86 / 1370.0, 1e-6);
  ASSERT_EQ(many->notes.size(), 1U);
  EXPECT_NE(many->notes[0].find("RTP time runs at 90.3942 kHz"), std::string::npos);
  EXPECT_NE(many->notes[0].find("with 10 or 137 --copies"), std::string::npos);  // 2 x 5 x 137
  EXPECT_NE(Plan(kRtp + kByRate + "--copies 2000")->notes.at(0).find("with 1370 --copies"),
            std::string::npos);
  const auto slow = Plan(kRtp + kByRate + "--raw --frame-bitrate 1999.5", Facts(0));
  EXPECT_NEAR(slow->rates.rtp_clock_ratio, 1999.5 / 1999, 1e-9);
  EXPECT_NE(slow->notes.at(0).find("whole bits per second, 1999 of 1999.5"), std::string::npos);
  EXPECT_EQ(Plan(kUdp + "--copies 16")->rates.rtp_clock_ratio, 0);
}

// 10,000 packets are 1,429 datagrams, 1.4 ms apart.
TEST(PlayPlan, WhatAnOrderDoesToTheMeanRateIsSaid) {
  const struct {
    std::string line;
    const char* said;  // in a note, or nothing
  } cases[] = {
      {kRtp + "--burst 1429", "a burst of 1,429 datagrams and leaves at once, not at 7.52 Mbit/s"},
      {kRtp + "--burst 10s", "leaves at once"},
      {kRtp + "--burst 10s " + kByRate, "leaves at once"},
      {kRtp + "--burst 1428", nullptr},
      {kRtp + "--burst 1429 --loop 2 --restamp", nullptr},
      {kRtp + "--burst 1000 " + kByRate, "of 429 instead of 1,000 datagrams"},
      {kRtp + "--burst 1000 " + kByRate, "takes 0 ns instead of 1.4 s"},
      {kRtp + "--burst 1000 --copies 2 " + kByRate, "takes 0 ns instead of 1.4 s"},
      {kRtp + "--burst 400 " + kByRate, "takes 1.12 s instead of 1.68 s"},
      {kRtp + "--jitter square:2800us " + kByRate, nullptr},
      {kRtp + "--jitter square:2900us", "never leaves before the one in front"},
  };
  for (const auto& c : cases) {
    const auto plan = Plan(c.line);
    ASSERT_TRUE(plan) << c.line << plan.Error().message;
    ASSERT_EQ(plan->notes.size(), c.said != nullptr ? 1U : 0U) << c.line;
    if (c.said != nullptr) {
      EXPECT_NE(plan->notes[0].find(c.said), std::string::npos) << c.line << plan->notes[0];
    }
  }
  const std::pair<const char*, const char*> refused[] = {
      {"--jitter square:2900us ", "at most square:2800us"},
      {"--jitter square:1us --burst 10 ", "lower the mean rate"}};
  for (const auto& [options, why] : refused) {
    const auto plan = Plan(kRtp + options + kByRate);
    ASSERT_FALSE(plan) << options;
    EXPECT_NE(plan.Error().message.find(why), std::string::npos) << plan.Error().message;
  }
}

TEST(PlayPlan, LargeFramesNeedTheBitCleared) {
  const auto small = Plan(kRtp);
  EXPECT_EQ(small->settings.params.IPFragmentation, 0U);
  const auto large = Plan(kRtp + "--ts-per-datagram 20", Facts(), 9000);
  ASSERT_TRUE(large) << large.Error().message;
  EXPECT_EQ(large->settings.params.IPFragmentation, 1U);
  EXPECT_EQ(Plan(kRtp + "--dont-fragment off")->settings.params.IPFragmentation, 1U);
}

TEST(PlayPlan, NotesTellWhatIsUnexpected) {
  const auto rate = Plan(kRtp + "--bitrate 9M");
  ASSERT_EQ(rate->notes.size(), 1U);
  EXPECT_NE(rate->notes[0].find("7.52 Mbit/s by the PCRs of PID 256"), std::string::npos);
  EXPECT_TRUE(Plan(kRtp + "--bitrate 7.52M")->notes.empty());
  StreamFacts facts = Facts();
  facts.rate->highest = 9000;
  facts.rate->discontinuities = 2;
  facts.leading_bytes = 10;
  facts.trailing_bytes = 20;
  EXPECT_EQ(Plan(kRtp, facts)->notes.size(), 4U);
}

// The group's MAC address follows the group, as far as it can.
TEST(PlayPlan, MulticastStepsMoveTheMacAddress) {
  const auto increment = [](const PlayPlan& plan) {
    MacAddress mac{};
    std::copy_n(plan.settings.params.ProtocolHeadersIncrements.EthernetHeaderIncrements
                    .DestinationMacAddressIncrement,
                6, mac.begin());
    return FormatMac(mac);
  };
  EXPECT_EQ(increment(*Plan(kUdp + "--copies 4 --step dst-ip=0.0.1.2")), "00:00:00:00:01:02");
  EXPECT_EQ(increment(*Plan(kUdp6 + "--copies 4 --step dst-ip=::7:0:1")), "00:00:00:00:00:01");
  EXPECT_EQ(increment(*Plan(kUdp + "--copies 4 --step dst-ip=0.0.0.1 --dst-mac 02:00:00:00:00:09")),
            "00:00:00:00:00:00");
  EXPECT_EQ(
      increment(*Plan(kUdp + "--copies 4 --step dst-ip=0.0.0.1 --step dst-mac=00:00:00:00:00:05")),
      "00:00:00:00:00:05");
  EXPECT_TRUE(Plan(kUdp + "--copies 4 --step dst-ip=0.0.0.1")->notes.empty());
  EXPECT_EQ(Plan("--to udp://239.127.255.254:5004 --copies 3 --step dst-ip=0.0.0.1")->notes.size(),
            1U);
}

TEST(PlayPlan, NearWrapStartsThreeSecondsBefore) {
  StreamFacts facts = Facts();
  facts.rate->first_pcr = 1'000'000'000;
  facts.rate->last_packet = 9990;
  facts.rate->last_pcr = 1'000'000'000 + 9990 * kPcrHz / 5000;
  const auto plan = Plan(kRtp + "--near-wrap --loop 2", facts);
  ASSERT_TRUE(plan) << plan.Error().message;
  ASSERT_TRUE(plan->rounds.restamp);
  EXPECT_EQ((1'000'000'000 + plan->rounds.restamp->start_offset) % kPcrModulus,
            kPcrModulus - 3 * kPcrHz);
  EXPECT_EQ(plan->rounds.restamp->round_ticks, 10'000 * kPcrHz / 5000);
  // 5,000 packets a second in datagrams of 7: 2,143 in three seconds.
  const auto& headers = plan->settings.params.ProtocolHeadersSettings;
  EXPECT_EQ(headers.RTPHeaderSettings.SequenceNumber, 65536U - 2143);
  EXPECT_EQ(headers.RTPHeaderSettings.RandomSequenceNumber, 0U);
  EXPECT_EQ(headers.IPHeaderSettings.Identification, 65536U - 2143);
}

TEST(PlayPlan, PrefillIsASecondOfAFileAndNothingOfAPipe) {
  // 940,000 bytes a second; the library starts at 0.8 of the number.
  EXPECT_EQ(Plan(kRtp)->settings.play_file_size, 1'175'000U);
  EXPECT_EQ(Plan(kRtp + "--prefill 0")->settings.play_file_size, 0U);
  EXPECT_EQ(Plan(kRtp, OfPipe())->settings.play_file_size, 0U);
  StreamFacts small = Facts();
  small.bytes = 188 * 100;
  EXPECT_EQ(Plan(kRtp, small)->settings.play_file_size, 23'500U);
}

// Worked out by hand: RFC 1071 sums over the bytes as they stand here.
TEST(FrameFields, FirstFrame) {
  const auto plan = Plan(
      "--to rtp://239.1.1.1:5004 --src-port 5004 --sequence 1 --ssrc 0x11223344 --vlan 100 "
      "--vlan-priority 5 --vlan-cfi --raw --frame-size 62 --bitrate 1M",
      Facts(0));
  ASSERT_TRUE(plan) << plan.Error().message;
  const auto lay_out = [&plan](const std::vector<std::uint8_t>& payload) {
    std::vector<std::uint8_t> frame;
    for (const FrameField& field : FirstFrameFields(plan->settings.params, true, payload)) {
      EXPECT_EQ(field.offset, frame.size()) << field.name;
      frame.insert(frame.end(), field.bytes.begin(), field.bytes.end());
    }
    return frame;
  };
  const std::vector<std::uint8_t> frame = lay_out({1, 2, 3, 4});
  const std::vector<std::uint8_t> expected{
      0x01, 0x00, 0x5E, 0x01, 0x01, 0x01, 0x02, 0xAA, 0x00, 0x00, 0x00, 0x01,  // MAC addresses
      0x81, 0x00, 0xB0, 0x64, 0x08, 0x00,                                      // tag, EtherType
      0x45, 0x00, 0x00, 0x2C, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11, 0x00, 0x00,  // IPv4
      0x0A, 0x09, 0x00, 0x01, 0xEF, 0x01, 0x01, 0x01,                          //
      0x13, 0x8C, 0x13, 0x8C, 0x00, 0x18, 0x00, 0x00,                          // UDP
      0x80, 0x21, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x11, 0x22, 0x33, 0x44};
  std::vector<std::uint8_t> without_checksums = frame;
  for (const std::size_t at : {28U, 29U, 44U, 45U}) {
    without_checksums[at] = 0;
  }
  EXPECT_EQ(without_checksums, expected);
  // 4500+002c+0000+4000+4011+0a09+0001+ef01+0101 = 1bf49, folded bf4a, complement 40b5.
  EXPECT_EQ(frame[28] << 8 | frame[29], 0x40B5);
  // 0a09+0001+ef01+0101+0011+0018, the 24 bytes: 1e9f3, folded e9f4, complement 160b.
  EXPECT_EQ(frame[44] << 8 | frame[45], 0x160B);
  // With 160b more the complement is 0, which would say that there is no checksum.
  const std::vector<std::uint8_t> zero = lay_out({1, 2, 0x19, 0x0F});
  EXPECT_EQ(zero[44] << 8 | zero[45], 0xFFFF);
}

}  // namespace
}  // namespace ipplay
