// SPDX-License-Identifier: MIT
#include "control/playout_rules.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

#include "control/datagram_layout.h"
#include "control/fault_rules.h"
#include "control/header_chain.h"
#include "control/value_checks.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kDefaultRing = 1 << 20;
constexpr std::uint32_t kLeastRing = 1 << 16;
constexpr std::uint32_t kMostRing = 1 << 30;
constexpr double kMostBitRate = 1e6;  // Mb/s
constexpr double kMostCatchUp = 1000;
constexpr std::int64_t kLongestTolerance = 1'000'000'000;
constexpr std::uint32_t kMostLedgerFrames = 1 << 24;
// SMPTE ST 2022-1.
constexpr std::uint32_t kMostFecColumns = 20;
constexpr std::uint32_t kLeastFecRows = 4;
constexpr std::uint32_t kMostFecRows = 20;
constexpr std::uint32_t kMostFecDatagrams = 100;

Failure CheckHeaders(const ProtocolHeadersSettings& headers) {
  const IPHeaderSettings& ip = headers.IPHeaderSettings;
  const UDPHeaderSettings& udp = headers.UDPHeaderSettings;
  const RTPHeaderSettings& rtp = headers.RTPHeaderSettings;
  return CheckRanges({{"EProtocol", headers.EthernetHeaderSettings.EProtocol, 0, 0xFFFF},
                      {"TPID", headers.TPID, 0, 0xFFFF},
                      {"VLANPriorityLevel", headers.VLANPriorityLevel, 0, 7},
                      {"VID", headers.VID, 0, 0xFFF},
                      {"TTL", ip.TTL, 0, 0xFF},
                      {"Identification", ip.Identification, 0, 0xFFFF},
                      {"IPProtocol", ip.IPProtocol, 0, 0xFF},
                      {"FlowLabel", headers.IPv6HeaderSettings.FlowLabel, 0, 0xFFFFF},
                      {"SourcePort", udp.SourcePort, 0, 0xFFFF},
                      {"DestinationPort", udp.DestinationPort, 0, 0xFFFF},
                      {"SequenceNumber", rtp.SequenceNumber, 0, 0xFFFF},
                      {"PayloadType", rtp.PayloadType, 0, 0xFF}});
}

Failure CheckPlayout(const IpPlayoutSettings& settings) {
  const IPPlayParams& params = settings.Params;
  if (Failure failure = CheckRanges(
          {{"To", settings.To, IPPLAYOUT_TO_ADAPTER, IPPLAYOUT_TO_SOCKET},
           {"IPLayerVersion", params.IPLayerVersion, IPPLAYOUT_IPV4, IPPLAYOUT_IPV6},
           {"ProtocolMode", params.ProtocolMode, IPPLAYOUT_UDP, IPPLAYOUT_RTP},
           {"PacketSizeMode", params.PacketSizeMode, IPPLAYOUT_SIZE_BYTES,
            IPPLAYOUT_SIZE_TS_PACKETS},
           {"ReplicationCount", params.ReplicationCount, 0, 65535},
           {"RingBytes", settings.RingBytes, kLeastRing, kMostRing},
           {"StartBytes", settings.StartBytes, 0, settings.RingBytes},
           {"Late", settings.Late, IPPLAYOUT_LATE_BOUNDED, IPPLAYOUT_LATE_DROP},
           {"Refused", settings.Refused, IPPLAYOUT_REFUSED_FAILS, IPPLAYOUT_REFUSED_COUNTS},
           {"LateAfterNs", settings.LateAfterNs, 0, kLongestTolerance},
           {"Precision", settings.Precision, IPPLAYOUT_PRECISE, IPPLAYOUT_ECONOMICAL},
           {"Stamps", settings.Stamps, IPPLAYOUT_OFF, IPPLAYOUT_ON},
           {"LedgerFrames", settings.LedgerFrames, 0, kMostLedgerFrames},
           {"FecColumns", settings.FecColumns, 0, kMostFecColumns},
           {"FecProtectsRows", settings.FecProtectsRows, IPPLAYOUT_OFF, IPPLAYOUT_ON},
           {"FecStaggered", settings.FecStaggered, IPPLAYOUT_OFF, IPPLAYOUT_ON},
           {"FecPayloadType", settings.FecPayloadType, 0, 127},
           {"CopiesShareTime", settings.CopiesShareTime, IPPLAYOUT_OFF, IPPLAYOUT_ON}})) {
    return failure;
  }
  const std::uint32_t packet = settings.TSPacketSize;
  if (packet != 0 && packet != 188 && packet != 192 && packet != 204) {
    return Refuse("TSPacketSize", std::to_string(packet), "188, 192, 204, or 0 for no packets");
  }
  if (!(settings.BitRate >= 0 && settings.BitRate <= kMostBitRate)) {
    return Refuse("BitRate", Text(settings.BitRate),
                  "above 0 to 1000000 Mb/s, or 0 where marks give the times");
  }
  if (!(settings.CatchUp > 1 && settings.CatchUp <= kMostCatchUp)) {
    return Refuse("CatchUp", Text(settings.CatchUp), "above 1 to 1000");
  }
  if (std::memchr(settings.Destination, '\0', sizeof settings.Destination) == nullptr) {
    return {IPPLAYOUT_BAD_VALUE, "Destination has no end; it can be up to 255 bytes and a NUL"};
  }
  if (settings.Destination[0] == '\0' && settings.To != IPPLAYOUT_TO_SOCKET) {
    return {IPPLAYOUT_BAD_VALUE, settings.To == IPPLAYOUT_TO_ADAPTER
                                     ? "Destination is empty; it is to be the name of an interface"
                                     : "Destination is empty; it is to be the path of a file"};
  }
  return {};
}

// Whether copies have the destination address and the tag of the first one.
bool HasOneAddress(const IPPlayParams& params) {
  const ProtocolHeadersIncrements& step = params.ProtocolHeadersIncrements;
  const auto is_zero = [](const auto& bytes) {
    return std::all_of(std::begin(bytes), std::end(bytes), [](auto byte) { return byte == 0; });
  };
  return (params.IPLayerVersion == IPPLAYOUT_IPV4
              ? is_zero(step.IPHeaderIncrements.DestinationIPIncrement)
              : is_zero(step.IPv6HeaderIncrements.DestinationIPv6AddressIncrement)) &&
         step.VLANHeaderIncrements.VLANIdentifierIncrement == 0;
}

// FEC takes the ports two and four above those of the stream.
Failure CheckFecPorts(const IPPlayParams& params) {
  constexpr std::int64_t kHighest = 0xFFFF - 4;
  const UDPHeaderSettings& udp = params.ProtocolHeadersSettings.UDPHeaderSettings;
  if (Failure failure =
          CheckRanges({{"SourcePort with FEC", udp.SourcePort, 0, kHighest},
                       {"DestinationPort with FEC", udp.DestinationPort, 0, kHighest}})) {
    return failure;
  }
  const std::uint32_t step =
      params.ProtocolHeadersIncrements.UDPHeaderIncrements.DestinationPortIncrement;
  const bool meets = (step == 1 && params.ReplicationCount > 1) || step == 2 || step == 4;
  if (params.ReplicationCount > 0 && meets && HasOneAddress(params)) {
    return {IPPLAYOUT_BAD_VALUE,
            "DestinationPortIncrement is " + std::to_string(step) +
                ", which puts copies on the ports of FEC (+2, +4); it can be 3 or above 4, or the "
                "addresses of copies can differ"};
  }
  return {};
}

Failure CheckFec(const IpPlayoutSettings& settings) {
  const std::uint32_t columns = settings.FecColumns;
  if (columns == 0) {
    return {};
  }
  if (Failure failure = CheckRange({"FecRows", settings.FecRows, kLeastFecRows, kMostFecRows})) {
    return failure;
  }
  if (columns * settings.FecRows > kMostFecDatagrams) {
    return {IPPLAYOUT_BAD_VALUE, "FecColumns times FecRows is " +
                                     std::to_string(columns * settings.FecRows) +
                                     "; it can be up to " + std::to_string(kMostFecDatagrams)};
  }
  if (settings.Params.ProtocolMode != IPPLAYOUT_RTP) {
    return {IPPLAYOUT_BAD_VALUE, "FecColumns is above 0, which needs RTP (ProtocolMode 1)"};
  }
  if (settings.Params.ReplicationCount > 0 && settings.CopiesShareTime != IPPLAYOUT_ON) {
    return {IPPLAYOUT_BAD_VALUE,
            "FecColumns is above 0 with ReplicationCount above 0, which needs CopiesShareTime 1"};
  }
  const std::uint32_t step =
      settings.Params.ProtocolHeadersIncrements.RTPHeaderIncrements.PayloadTypeIncrement;
  if (settings.Params.ReplicationCount > 0 && step != 0) {
    return {IPPLAYOUT_BAD_VALUE,
            "PayloadTypeIncrement is " + std::to_string(step) +
                ", but with FEC one parity is that of every copy; it can be 0"};
  }
  if (settings.To == IPPLAYOUT_TO_SOCKET) {
    return {IPPLAYOUT_BAD_VALUE,
            "FecColumns is above 0, which a UDP socket cannot do; an adapter can"};
  }
  return CheckFecPorts(settings.Params);
}

// What a socket leaves to the kernel cannot be ordered.
Failure CheckSocket(const IpPlayoutSettings& settings) {
  const IPPlayParams& params = settings.Params;
  const ProtocolHeadersSettings& headers = params.ProtocolHeadersSettings;
  const bool ipv4 = params.IPLayerVersion == IPPLAYOUT_IPV4;
  const struct {
    bool is_set;
    const char* what;
  } kRefused[] = {
      {headers.VLANEnabled == IPPLAYOUT_ON, "VLANEnabled is 1"},
      {params.ReplicationCount > 0, "ReplicationCount is above 0"},
      {ipv4 && headers.IPHeaderSettings.Identification != 0, "Identification is not 0"},
      {ipv4 && headers.IPHeaderSettings.IPProtocol != 17, "IPProtocol is not 17"},
      {!ipv4 && headers.IPv6HeaderSettings.NextHeader != 17, "NextHeader is not 17"},
      {settings.Errors.ErrInsertionEnable != 0 && settings.Errors.ChecksumErrorEnabled != 0,
       "ChecksumErrorEnabled is set"},
  };
  for (const auto& row : kRefused) {
    if (row.is_set) {
      return {IPPLAYOUT_BAD_VALUE,
              std::string(row.what) + ", which a UDP socket cannot do; an adapter can"};
    }
  }
  return {};
}

// The smallest datagram has room for its headers and something in it.
Failure CheckLayout(const IpPlayoutSettings& settings) {
  platform::Random random(0);
  const PlayoutSettings playout = ToPlayoutSettings(settings, random);
  const IPPlayParams& params = playout.params;
  const std::uint32_t headers = HeaderLength(playout);
  const auto layout = LayOutDatagram(playout, headers);
  if (!layout || layout->datagram_size <= headers) {
    return {IPPLAYOUT_BAD_VALUE,
            params.PacketSizeMode == IPPLAYOUT_SIZE_TS_PACKETS && playout.TSPacketSize != 0
                ? "TSPacketCount is " + std::to_string(params.TSPacketCount) +
                      "; a frame is to hold a packet and up to GetMaxIPMTU bytes"
                : "IPPacketSize is " + std::to_string(params.IPPacketSize) +
                      "; a frame is to hold " + std::to_string(headers) +
                      " bytes of headers and a packet"};
  }
  return {};
}

}  // namespace

Failure CheckSettings(const IpPlayoutSettings& settings) {
  if (settings.Size != sizeof settings) {
    return {IPPLAYOUT_BAD_VALUE, "Size is " + std::to_string(settings.Size) +
                                     "; this library has " + std::to_string(sizeof settings) +
                                     ", which IpPlayoutDefaults sets"};
  }
  if (Failure failure = CheckPlayout(settings)) {
    return failure;
  }
  if (Failure failure = CheckHeaders(settings.Params.ProtocolHeadersSettings)) {
    return failure;
  }
  if (Failure failure = CheckFec(settings)) {
    return failure;
  }
  if (Failure failure = CheckFaults(settings)) {
    return failure;
  }
  if (settings.To == IPPLAYOUT_TO_SOCKET) {
    if (Failure failure = CheckSocket(settings)) {
      return failure;
    }
  }
  return CheckLayout(settings);
}

IpPlayoutSettings DefaultSettings() {
  IpPlayoutSettings settings{};
  settings.Size = sizeof settings;
  IPPlayParams& params = settings.Params;
  params.ProtocolMode = IPPLAYOUT_RTP;
  params.PacketSizeMode = IPPLAYOUT_SIZE_TS_PACKETS;
  params.TSPacketCount = 7;
  params.IPPacketSize = 1370;
  ProtocolHeadersSettings& headers = params.ProtocolHeadersSettings;
  headers.EthernetHeaderSettings.EProtocol = 0x0800;
  headers.TPID = 0x8100;
  headers.IPHeaderSettings.IPVersion = 4;
  headers.IPHeaderSettings.TTL = 16;
  headers.IPHeaderSettings.IPProtocol = 17;
  headers.IPv6HeaderSettings.IPv6Version = 6;
  headers.IPv6HeaderSettings.HopLimit = 16;
  headers.IPv6HeaderSettings.NextHeader = 17;
  headers.RTPHeaderSettings.RTPVersion = 2;
  headers.RTPHeaderSettings.PayloadType = 33;
  headers.RTPHeaderSettings.RandomSequenceNumber = IPPLAYOUT_ON;
  headers.RTPHeaderSettings.RandomSSRC = IPPLAYOUT_ON;
  settings.TSPacketSize = 188;
  settings.RingBytes = kDefaultRing;
  settings.StartBytes = kDefaultRing / 4;
  settings.CatchUp = 1.25;
  settings.LateAfterNs = 1'000'000;
  settings.FecPayloadType = 96;
  settings.Faults.DelayDistance = 1;
  settings.Faults.CorruptBits = 1;
  return settings;
}

PlayoutSettings ToPlayoutSettings(const IpPlayoutSettings& settings, platform::Random& random) {
  PlayoutSettings playout{};
  playout.params = settings.Params;
  playout.error_insertion = settings.Errors;
  playout.parametric = settings.Parametric;
  playout.tts = settings.Tts;
  playout.TSPacketSize = settings.TSPacketSize;
  playout.IPBitRate = settings.BitRate;
  RTPHeaderSettings& rtp = playout.params.ProtocolHeadersSettings.RTPHeaderSettings;
  if (rtp.RandomSSRC == IPPLAYOUT_ON) {
    rtp.SSRC = static_cast<std::uint32_t>(random.Next64() >> 32);
    rtp.RandomSSRC = IPPLAYOUT_OFF;
  }
  if (rtp.RandomSequenceNumber == IPPLAYOUT_ON) {
    rtp.SequenceNumber = static_cast<std::uint32_t>(random.Next64() >> 48);
    rtp.RandomSequenceNumber = IPPLAYOUT_OFF;
  }
  return playout;
}

}  // namespace ipplayout
