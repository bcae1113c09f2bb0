#include <gtest/gtest.h>

#include "control/settings_store.h"
#include "ipplayout/ipplayout.h"

namespace {

using ipplayout::Settings;

TEST(DerivedValuesTest, LengthsFollowFromTheSettings) {
  const struct {
    std::uint32_t vlan;
    std::uint32_t rtp;
    std::uint32_t ip_version;
    std::uint32_t size_mode;
    std::uint32_t ts_packet_size;
    std::uint32_t tts;
    std::uint32_t total_length;
    std::uint32_t ipv6_payload_length;
    std::uint32_t udp_length;
  } cases[] = {
      // 7 packets a datagram.
      {0, 1, 0, 1, 188, 0, 1356, 1336, 1336},
      {0, 1, 1, 1, 188, 0, 1356, 1336, 1336},
      {1, 0, 1, 1, 188, 0, 1344, 1324, 1324},
      {0, 1, 0, 1, 204, 1, 1384, 1364, 1364},  // 192 bytes of each
      {0, 1, 0, 1, 200, 1, 40, 20, 20},        // no such time-stamped packet
      {0, 1, 0, 1, 0, 1, 40, 20, 20},
      // A frame of 1,370 bytes.
      {1, 1, 0, 0, 188, 0, 1352, 1312, 1332},
      {0, 0, 1, 0, 188, 0, 1356, 1316, 1316},
  };
  Settings() = {};
  for (const auto& c : cases) {
    SetTSPacketCount(7);
    SetIPPacketSize(1370);
    Settings().params.ProtocolHeadersSettings.VLANEnabled = c.vlan;
    Settings().params.ProtocolMode = c.rtp;
    Settings().params.IPLayerVersion = c.ip_version;
    Settings().params.PacketSizeMode = c.size_mode;
    Settings().TSPacketSize = c.ts_packet_size;
    Settings().tts.TTSEnabled = c.tts;
    EXPECT_EQ(GetTotalLength(), c.total_length);
    EXPECT_EQ(GetIPHeaderSettings()->TotalLength, c.total_length);
    EXPECT_EQ(GetIpv6PayloadLength(), c.ipv6_payload_length);
    EXPECT_EQ(GetIPv6HeaderSettings()->Ipv6PayloadLength, c.ipv6_payload_length);
    EXPECT_EQ(GetLength(), c.udp_length);
    EXPECT_EQ(GetUDPHeaderSettings()->Length, c.udp_length);
  }
}

TEST(DerivedValuesTest, MtuByVersionAndFragmentation) {
  const std::uint32_t cases[][3] = {{0, 1, 16128}, {0, 0, 1500},  {0, 2, 1500},
                                    {1, 0, 16128}, {1, 1, 16128}, {2, 1, 0}};
  for (const auto& [version, fragmentation, mtu] : cases) {
    EXPECT_EQ(GetMaxIPMTU(version, fragmentation), mtu) << version << ", " << fragmentation;
  }
}

}  // namespace
