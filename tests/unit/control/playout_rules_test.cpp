// SPDX-License-Identifier: MIT
#include "control/playout_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>

namespace ipplayout {
namespace {

IpPlayoutSettings Good() {
  IpPlayoutSettings settings = DefaultSettings();
  std::strcpy(settings.Destination, "near");
  settings.BitRate = 10;
  return settings;
}

using Change = std::function<void(IpPlayoutSettings&)>;

TEST(PlayoutRules, AcceptDefaultsAndTheEndsOfRanges) {
  EXPECT_EQ(CheckSettings(Good()).sentence, "");
  const Change kChanges[] = {
      [](auto& s) { s.StartBytes = s.RingBytes; },
      [](auto& s) { s.RingBytes = 1 << 30; },
      [](auto& s) { s.BitRate = 1e6; },
      [](auto& s) { s.BitRate = 0; },
      [](auto& s) { s.CatchUp = 1000; },
      [](auto& s) { s.LateAfterNs = 0; },
      [](auto& s) { s.Params.ReplicationCount = 65535; },
      [](auto& s) { std::memset(s.Destination, 'x', sizeof s.Destination - 1); },
      [](auto& s) { s.FecColumns = 20, s.FecRows = 5; },
  };
  for (const Change& change : kChanges) {
    IpPlayoutSettings settings = Good();
    change(settings);
    EXPECT_EQ(CheckSettings(settings).sentence, "");
  }
}

// As the header gives them.
TEST(PlayoutRules, FillDefaults) {
  const IpPlayoutSettings s = DefaultSettings();
  const ProtocolHeadersSettings& headers = s.Params.ProtocolHeadersSettings;
  const std::int64_t values[] = {s.Params.ProtocolMode,
                                 s.Params.IPLayerVersion,
                                 s.Params.TSPacketCount,
                                 s.TSPacketSize,
                                 headers.IPHeaderSettings.TTL,
                                 headers.IPv6HeaderSettings.HopLimit,
                                 headers.RTPHeaderSettings.RandomSSRC,
                                 headers.RTPHeaderSettings.RandomSequenceNumber,
                                 s.RingBytes,
                                 s.StartBytes,
                                 s.LateAfterNs,
                                 s.LedgerFrames,
                                 s.FecPayloadType,
                                 s.Faults.DelayDistance,
                                 s.Faults.CorruptBits};
  EXPECT_THAT(values, testing::ElementsAre(IPPLAYOUT_RTP, IPPLAYOUT_IPV4, 7, 188, 16, 16, 1, 1,
                                           1 << 20, 1 << 18, 1'000'000, 0, 96, 1, 1));
  EXPECT_EQ(s.CatchUp, 1.25);
  EXPECT_EQ(s.BitRate, 0);
}

TEST(PlayoutRules, NameTheFieldItsValueAndWhatItCanBe) {
  const struct {
    Change change;
    const char* sentence;
  } kRows[] = {
      {[](auto& s) { s.To = 3; }, "To is 3; it can be 0 to 2"},
      {[](auto& s) { s.Params.IPLayerVersion = 2; }, "IPLayerVersion is 2; it can be 0 to 1"},
      {[](auto& s) { s.Params.ProtocolMode = 2; }, "ProtocolMode is 2; it can be 0 to 1"},
      {[](auto& s) { s.Params.PacketSizeMode = 2; }, "PacketSizeMode is 2; it can be 0 to 1"},
      {[](auto& s) { s.Params.ReplicationCount = -1; },
       "ReplicationCount is -1; it can be 0 to 65535"},
      {[](auto& s) { s.RingBytes = 65535; }, "RingBytes is 65535; it can be 65536 to 1073741824"},
      {[](auto& s) { s.RingBytes = (1 << 30) + 1; },
       "RingBytes is 1073741825; it can be 65536 to 1073741824"},
      {[](auto& s) { s.RingBytes = 65536, s.StartBytes = 65537; },
       "StartBytes is 65537; it can be 0 to 65536"},
      {[](auto& s) { s.Late = 4; }, "Late is 4; it can be 0 to 3"},
      {[](auto& s) { s.Refused = 2; }, "Refused is 2; it can be 0 to 1"},
      {[](auto& s) { s.LateAfterNs = -1; }, "LateAfterNs is -1; it can be 0 to 1000000000"},
      {[](auto& s) { s.Precision = 2; }, "Precision is 2; it can be 0 to 1"},
      {[](auto& s) { s.Stamps = 2; }, "Stamps is 2; it can be 0 to 1"},
      {[](auto& s) { s.LedgerFrames = (1 << 24) + 1; },
       "LedgerFrames is 16777217; it can be 0 to 16777216"},
      {[](auto& s) { s.CopiesShareTime = 2; }, "CopiesShareTime is 2; it can be 0 to 1"},
      {[](auto& s) { s.FecColumns = 21; }, "FecColumns is 21; it can be 0 to 20"},
      {[](auto& s) { s.FecColumns = 1, s.FecRows = 3; }, "FecRows is 3; it can be 4 to 20"},
      {[](auto& s) { s.FecColumns = 20, s.FecRows = 6; },
       "FecColumns times FecRows is 120; it can be up to 100"},
      {[](auto& s) { s.FecPayloadType = 128; }, "FecPayloadType is 128; it can be 0 to 127"},
      {[](auto& s) { s.TSPacketSize = 189; },
       "TSPacketSize is 189; it can be 188, 192, 204, or 0 for no packets"},
      {[](auto& s) { s.BitRate = std::nan(""); },
       "BitRate is nan; it can be above 0 to 1000000 Mb/s, or 0 where marks give the times"},
      {[](auto& s) { s.CatchUp = 1; }, "CatchUp is 1; it can be above 1 to 1000"},
      {[](auto& s) { s.CatchUp = std::nan(""); }, "CatchUp is nan; it can be above 1 to 1000"},
      {[](auto& s) { std::memset(s.Destination, 'x', sizeof s.Destination); },
       "Destination has no end; it can be up to 255 bytes and a NUL"},
      {[](auto& s) { s.Destination[0] = 0; },
       "Destination is empty; it is to be the name of an interface"},
      {[](auto& s) { s.Destination[0] = 0, s.To = IPPLAYOUT_TO_FILE; },
       "Destination is empty; it is to be the path of a file"},
      {[](auto& s) { s.Params.TSPacketCount = 0; },
       "TSPacketCount is 0; a frame is to hold a packet and up to GetMaxIPMTU bytes"},
      {[](auto& s) { s.Params.PacketSizeMode = 0, s.Params.IPPacketSize = 241; },
       "IPPacketSize is 241; a frame is to hold 54 bytes of headers and a packet"},
  };
  for (const auto& row : kRows) {
    IpPlayoutSettings settings = Good();
    row.change(settings);
    const Failure failure = CheckSettings(settings);
    EXPECT_EQ(failure.sentence, row.sentence);
    EXPECT_EQ(failure.code, IPPLAYOUT_BAD_VALUE) << row.sentence;
  }
}

TEST(PlayoutRules, NameTheHeaderField) {
  using Headers = ProtocolHeadersSettings;
  const struct {
    std::function<void(Headers&, std::uint32_t)> set;
    const char* name;
    std::uint32_t most;
  } kRows[] = {
      {[](Headers& h, auto v) { h.EthernetHeaderSettings.EProtocol = v; }, "EProtocol", 0xFFFF},
      {[](Headers& h, auto v) { h.TPID = v; }, "TPID", 0xFFFF},
      {[](Headers& h, auto v) { h.VLANPriorityLevel = static_cast<std::uint8_t>(v); },
       "VLANPriorityLevel", 7},
      {[](Headers& h, auto v) { h.VID = v; }, "VID", 0xFFF},
      {[](Headers& h, auto v) { h.IPHeaderSettings.TTL = v; }, "TTL", 0xFF},
      {[](Headers& h, auto v) { h.IPHeaderSettings.Identification = v; }, "Identification", 0xFFFF},
      {[](Headers& h, auto v) { h.IPHeaderSettings.IPProtocol = v; }, "IPProtocol", 0xFF},
      {[](Headers& h, auto v) { h.IPv6HeaderSettings.FlowLabel = v; }, "FlowLabel", 0xFFFFF},
      {[](Headers& h, auto v) { h.UDPHeaderSettings.SourcePort = v; }, "SourcePort", 0xFFFF},
      {[](Headers& h, auto v) { h.UDPHeaderSettings.DestinationPort = v; }, "DestinationPort",
       0xFFFF},
      {[](Headers& h, auto v) { h.RTPHeaderSettings.SequenceNumber = v; }, "SequenceNumber",
       0xFFFF},
      {[](Headers& h, auto v) { h.RTPHeaderSettings.PayloadType = v; }, "PayloadType", 0xFF},
  };
  for (const auto& row : kRows) {
    IpPlayoutSettings settings = Good();
    row.set(settings.Params.ProtocolHeadersSettings, row.most);
    EXPECT_EQ(CheckSettings(settings).sentence, "");
    row.set(settings.Params.ProtocolHeadersSettings, row.most + 1);
    EXPECT_EQ(CheckSettings(settings).sentence, std::string(row.name) + " is " +
                                                    std::to_string(row.most + 1) +
                                                    "; it can be 0 to " + std::to_string(row.most));
  }
}

TEST(PlayoutRules, NameWhatASocketCannotDo) {
  const struct {
    Change change;
    const char* what;
  } kRows[] = {
      {[](auto& s) { s.Params.ProtocolHeadersSettings.VLANEnabled = 1; }, "VLANEnabled is 1"},
      {[](auto& s) { s.Params.ReplicationCount = 1; }, "ReplicationCount is above 0"},
      {[](auto& s) { s.Params.ProtocolHeadersSettings.IPHeaderSettings.Identification = 1; },
       "Identification is not 0"},
      {[](auto& s) { s.Params.ProtocolHeadersSettings.IPHeaderSettings.IPProtocol = 2; },
       "IPProtocol is not 17"},
      {[](auto& s) {
         s.Params.IPLayerVersion = IPPLAYOUT_IPV6;
         s.Params.ProtocolHeadersSettings.IPv6HeaderSettings.NextHeader = 44;
       },
       "NextHeader is not 17"},
      {[](auto& s) { s.Errors.ErrInsertionEnable = s.Errors.ChecksumErrorEnabled = 1; },
       "ChecksumErrorEnabled is set"},
      {[](auto& s) { s.FecColumns = 5, s.FecRows = 5; }, "FecColumns is above 0"},
  };
  for (const auto& row : kRows) {
    IpPlayoutSettings settings = Good();
    row.change(settings);
    EXPECT_EQ(CheckSettings(settings).sentence, "") << row.what;  // of an adapter
    settings.To = IPPLAYOUT_TO_SOCKET;
    EXPECT_EQ(CheckSettings(settings).sentence,
              std::string(row.what) + ", which a UDP socket cannot do; an adapter can");
  }
}

TEST(PlayoutRules, DrawWhatIsRandomFromTheSeed) {
  IpPlayoutSettings settings = Good();
  platform::Random one(1);
  platform::Random same(1);
  platform::Random other(2);
  const auto rtp = [&](platform::Random& random) {
    return ToPlayoutSettings(settings, random).params.ProtocolHeadersSettings.RTPHeaderSettings;
  };
  const RTPHeaderSettings drawn = rtp(one);
  EXPECT_EQ(drawn.SSRC, rtp(same).SSRC);
  EXPECT_NE(drawn.SSRC, rtp(other).SSRC);
  std::uint32_t ssrc_bits = 0;
  std::uint32_t sequence_bits = 0;
  for (int i = 0; i < 64; ++i) {
    const RTPHeaderSettings next = rtp(one);
    ssrc_bits |= next.SSRC;
    sequence_bits |= next.SequenceNumber;
  }
  EXPECT_EQ(ssrc_bits, 0xFFFFFFFFU);
  EXPECT_EQ(sequence_bits, 0xFFFFU);
  EXPECT_EQ(drawn.RandomSSRC, std::uint32_t{IPPLAYOUT_OFF});
  settings.Params.ProtocolHeadersSettings.RTPHeaderSettings.RandomSSRC = IPPLAYOUT_OFF;
  settings.Params.ProtocolHeadersSettings.RTPHeaderSettings.SSRC = 77;
  EXPECT_EQ(rtp(one).SSRC, 77U);
}

}  // namespace
}  // namespace ipplayout
