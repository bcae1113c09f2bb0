#include "protocol/replication_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "platform/random.h"
#include "tests/support/bytes.h"

namespace ipplayout {
namespace {

// A manager at copy 0 of the first datagram.
CZebReplicationMgr AtFirstDatagram(const ProtocolHeadersSettings& settings,
                                   const ProtocolHeadersIncrements& increments) {
  CZebReplicationMgr manager;
  manager.StartDatagram();  // as a start does, before it loads the settings
  manager.SetIncrements(increments, 2);
  manager.SetHeaderSettings(settings);
  manager.StartDatagram();
  return manager;
}

template <std::size_t N>
void Assign(std::uint8_t (&to)[N], const char* hex) {
  const Bytes bytes = FromHex(hex);
  ASSERT_EQ(bytes.size(), N);
  std::copy_n(bytes.begin(), N, to);
}

// Destination and source, of the header whose addresses have `width` bytes.
std::pair<std::string, std::string> AddressesOf(const CZebReplicationMgr& manager,
                                                std::size_t width) {
  if (width == 4) {
    IpFields ip;
    manager.GetIpFields(ip);
    return {ToHex(ip.destination), ToHex(ip.source)};
  }
  if (width == 6) {
    EthernetFields ethernet;
    manager.GetEthernetFields(ethernet);
    return {ToHex(ethernet.destination_mac), ToHex(ethernet.source_mac)};
  }
  Ipv6Fields ipv6;
  manager.GetIpv6Fields(ipv6);
  return {ToHex(ipv6.destination), ToHex(ipv6.source)};
}

TEST(ReplicationManagerTest, AddressesAreAddedBigEndianWithCarryAndWrap) {
  const struct {
    const char* start;
    const char* increment;
    const char* copies[2];
  } cases[] = {
      {"0a 00 00 ff", "00 00 00 01", {"0a 00 01 00", "0a 00 01 01"}},
      {"ff ff ff ff", "00 00 00 01", {"00 00 00 00", "00 00 00 01"}},
      {"ef 01 ff ff", "00 00 00 01", {"ef 02 00 00", "ef 02 00 01"}},
      {"01 00 5e 00 00 ff", "00 00 00 00 00 01", {"01 00 5e 00 01 00", "01 00 5e 00 01 01"}},
      {"ff ff ff ff ff ff", "00 00 00 00 00 02", {"00 00 00 00 00 01", "00 00 00 00 00 03"}},
      {"20 01 0d b8 00 00 00 00 ff ff ff ff ff ff ff ff",
       "00 00 00 00 00 00 00 00 ff ff ff ff ff ff ff ff",
       {"20 01 0d b8 00 00 00 01 ff ff ff ff ff ff ff fe",
        "20 01 0d b8 00 00 00 02 ff ff ff ff ff ff ff fd"}},
      {"ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff",
       "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01",
       {"00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
        "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01"}},
  };
  for (const auto& [start, increment, copies] : cases) {
    ProtocolHeadersSettings settings{};
    ProtocolHeadersIncrements step{};
    const std::size_t width = FromHex(start).size();
    if (width == 4) {
      Assign(settings.IPHeaderSettings.SourceIP, start);
      Assign(settings.IPHeaderSettings.DestinationIP, start);
      Assign(step.IPHeaderIncrements.DestinationIPIncrement, increment);
    } else if (width == 6) {
      Assign(settings.EthernetHeaderSettings.SourceMacAddress, start);
      Assign(settings.EthernetHeaderSettings.DestinationMacAddress, start);
      Assign(step.EthernetHeaderIncrements.DestinationMacAddressIncrement, increment);
    } else {
      Assign(settings.IPv6HeaderSettings.SourceIPv6, start);
      Assign(settings.IPv6HeaderSettings.DestinationIPv6, start);
      Assign(step.IPv6HeaderIncrements.DestinationIPv6AddressIncrement, increment);
    }
    CZebReplicationMgr manager = AtFirstDatagram(settings, step);
    for (const char* copy : {start, copies[0], copies[1]}) {
      const auto [destination, source] = AddressesOf(manager, width);
      EXPECT_EQ(destination, copy);
      EXPECT_EQ(source, start);  // has no increment of its own
      manager.NextCopy();
    }
  }
}

// TOS, TTL, protocol, traffic class, flow label, next header, hop limit, destination port, source
// port, payload type, SSRC, VLAN identifier, EtherType.
using Numbers = std::array<std::uint32_t, 13>;

Numbers NumbersOf(const CZebReplicationMgr& manager) {
  IpFields ip;
  Ipv6Fields ipv6;
  UdpFields udp;
  RtpFields rtp;
  EthernetFields ethernet;
  std::uint32_t vlan = 0;
  manager.GetIpFields(ip);
  manager.GetIpv6Fields(ipv6);
  manager.GetUdpFields(udp);
  manager.GetRtpFields(rtp);
  manager.GetEthernetFields(ethernet);
  manager.GetVlanFields(vlan);
  return {ip.tos,
          ip.ttl,
          ip.protocol & 0xFF,
          ipv6.traffic_class & 0xFF,
          ipv6.flow_label,
          ipv6.next_header,
          ipv6.hop_limit,
          udp.destination_port,
          udp.source_port,
          rtp.payload_type,
          rtp.ssrc,
          vlan >> 16,
          ethernet.ether_type};
}

// Copy 0 is what the host configured, out of range or not; from copy 1 on values keep their width.
TEST(ReplicationManagerTest, NumbersWrapAtTheWidthOfTheirFieldFromCopyOneOn) {
  ProtocolHeadersSettings settings{};
  settings.IPHeaderSettings.TOS = 0xFF;
  settings.IPHeaderSettings.TTL = 255;
  settings.IPHeaderSettings.IPProtocol = 255;
  settings.IPv6HeaderSettings = {6, 0xFF, 0x1FFFFF, 0, 255, 254, {}, {}};
  settings.UDPHeaderSettings = {70000, 65535, 0};
  settings.RTPHeaderSettings.PayloadType = 255;
  settings.RTPHeaderSettings.SSRC = 0xFFFFFFFF;
  settings.VID = 0x1FFF;
  settings.EthernetHeaderSettings.EProtocol = 0x1FFFF;
  ProtocolHeadersIncrements step{};
  step.IPHeaderIncrements = {2, 2, 2, {}, {}};
  step.IPv6HeaderIncrements = {3, 2, 3, 4, {}, {}};
  step.UDPHeaderIncrements = {1, 2};  // source, destination
  step.RTPHeaderIncrements = {1, 2};
  step.VLANHeaderIncrements = {1};
  step.EthernetHeaderIncrements.EProtocolIncrement = 2;
  CZebReplicationMgr manager = AtFirstDatagram(settings, step);
  const Numbers configured{255,   255,   255, 255,        0x1FFFFF, 255,    254,
                           65535, 70000, 255, 0xFFFFFFFF, 0x1FFF,   0x1FFFF};
  EXPECT_EQ(NumbersOf(manager), configured);
  manager.NextCopy();
  EXPECT_EQ(NumbersOf(manager), (Numbers{1, 1, 1, 2, 1, 2, 2, 1, 4465, 0, 1, 0, 1}));
  manager.NextCopy();
  EXPECT_EQ(NumbersOf(manager), (Numbers{3, 3, 3, 5, 3, 5, 6, 3, 4466, 1, 3, 1, 3}));
  EXPECT_EQ(manager.CopyIndex(), 2U);
  manager.StartDatagram();
  EXPECT_EQ(manager.CopyIndex(), 0U);
  EXPECT_EQ(NumbersOf(manager), configured);
}

TEST(ReplicationManagerTest, TheIncrementOfTheEtherTypeReachesThePayloadsBehindATag) {
  ProtocolHeadersSettings settings{};
  settings.VLANEnabled = 1;
  settings.TPID = 0x8100;
  settings.VID = 100;
  settings.EthernetHeaderSettings.EProtocol = 0x0800;
  ProtocolHeadersIncrements step{};
  step.EthernetHeaderIncrements.EProtocolIncrement = 1;
  step.VLANHeaderIncrements.VLANIdentifierIncrement = 5;
  CZebReplicationMgr manager = AtFirstDatagram(settings, step);
  for (const std::uint32_t tag : {0x00640800U, 0x00690801U, 0x006E0802U}) {
    EthernetFields ethernet;
    std::uint32_t fields = 0;
    manager.GetEthernetFields(ethernet);
    EXPECT_EQ(ethernet.ether_type, 0x8100U);
    EXPECT_EQ(manager.GetVlanFields(fields), tag);
    EXPECT_EQ(fields, tag);
    manager.NextCopy();
  }
}

TEST(ReplicationManagerTest, CountersAdvanceOncePerDatagram) {
  ProtocolHeadersSettings settings{};
  settings.IPHeaderSettings.Identification = 65535;
  settings.RTPHeaderSettings.SequenceNumber = 0;
  CZebReplicationMgr manager = AtFirstDatagram(settings, {});
  for (std::uint32_t datagram = 0; datagram < 3; ++datagram) {
    for (int copy = 0; copy < 3; ++copy) {
      IpFields ip;
      RtpFields rtp;
      manager.GetIpFields(ip);
      manager.GetRtpFields(rtp);
      EXPECT_EQ(ip.identification & 0xFFFF, (65535 + datagram) & 0xFFFF);
      EXPECT_EQ(rtp.sequence_number, datagram);
      manager.NextCopy();
    }
    manager.StartDatagram();
  }
}

TEST(ReplicationManagerTest, DrawsTheSsrcBeforeTheSequenceNumber) {
  ProtocolHeadersSettings settings{};
  settings.RTPHeaderSettings.RandomSSRC = 1;
  settings.RTPHeaderSettings.RandomSequenceNumber = 1;
  settings.RTPHeaderSettings.SSRC = settings.RTPHeaderSettings.SequenceNumber = 1000000;
  platform::SeedRandom(7);
  const std::uint32_t first = platform::NextRandom();
  const std::uint32_t second = platform::NextRandom();
  platform::SeedRandom(7);
  const CZebReplicationMgr manager = AtFirstDatagram(settings, {});
  RtpFields rtp;
  manager.GetRtpFields(rtp);
  EXPECT_EQ(rtp.ssrc, first);
  EXPECT_EQ(rtp.sequence_number, second + 1);
}

TEST(ReplicationManagerTest, ACountOfZeroOrLessSwitchesItOff) {
  CZebReplicationMgr manager;
  for (const std::int32_t count : {-1, 0, 1}) {
    manager.SetIncrements({}, count);
    EXPECT_EQ(manager.IsEnabled(), count == 1 ? 1 : 0);
    EXPECT_EQ(manager.GetReplicationCount(), count);
  }
}

}  // namespace
}  // namespace ipplayout
