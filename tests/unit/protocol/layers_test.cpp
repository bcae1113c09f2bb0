// Whole frames, as they leave the chain of layers. The golden ones were put together by another
// program from the RFCs.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "payload/error_insertion_manager.h"
#include "payload/rtp_clock.h"
#include "protocol/ethernet_layer.h"
#include "protocol/ipv4_layer.h"
#include "protocol/ipv6_layer.h"
#include "protocol/rtp_layer.h"
#include "protocol/udp_layer.h"
#include "protocol/vlan_layer.h"
#include "tests/support/recording_sender.h"

namespace ipplayout {
namespace {

constexpr char kEthernet[] = "01 00 5e 01 01 01 02 00 00 00 00 0a 08 00 ";

// A chain over `wire`, from the records in it; change them before the first frame.
struct Chain {
  Chain() {
    ethernet.destination = {0x01, 0x00, 0x5E, 0x01, 0x01, 0x01};
    ethernet.source = {0x02, 0, 0, 0, 0, 0x0A};
    ethernet.ether_type.WriteU16(0x0800, 0);
    ip = {64, 17, {192, 168, 1, 10}, {239, 1, 1, 1}, 4, 0xB8, true, 65535, nullptr};
    udp.source_port = 4000;
    udp.destination_port = 5000;
    udp.source_ip = ip.source;
    udp.destination_ip = ip.destination;
    rtp = {2, 33, 0, 65535, 0x12345678, &clock};
    ipv6.IPv6Version = 6;
    ipv6.TrafficClass = 0xAB;
    ipv6.FlowLabel = 0x12345;
    ipv6.NextHeader = 17;
    ipv6.HopLimit = 64;
    SetIpv6Addresses();
  }

  void SetIpv6Addresses() {
    const Bytes source = FromHex("20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01");
    const Bytes destination = FromHex("ff 3e 00 00 00 00 00 00 00 00 00 00 00 00 12 34");
    std::copy_n(source.begin(), 16, ipv6.SourceIPv6);
    std::copy_n(destination.begin(), 16, ipv6.DestinationIPv6);
    std::copy_n(source.begin(), 16, udp.source_ipv6.begin());
    std::copy_n(destination.begin(), 16, udp.destination_ipv6.begin());
  }

  void Build() {
    ethernet.errors = ip.errors = udp.errors = errors;
    udp.is_ipv4 = !use_ipv6;
    ethernet_layer = std::make_unique<EthernetDataFlowOut>(ethernet, &wire);
    Layer* below = ethernet_layer.get();
    if (use_vlan) {
      vlan_layer = std::make_unique<VLANDataFlowOut>(vlan, below, inner_ether_type);
      below = vlan_layer.get();
    }
    if (use_ipv6) {
      ip_layer = std::make_unique<IPv6DataFlowOut>(IPv6DataFlowSpecifier(ipv6), below);
    } else {
      ip_layer = std::make_unique<IpDataFlowOut>(ip, below);
    }
    udp_layer = std::make_unique<UdpDataFlowOut>(udp, ip_layer.get());
    top = udp_layer.get();
    if (use_rtp) {
      rtp_layer = std::make_unique<RtpDataFlowOut>(rtp, udp_layer.get());
      top = rtp_layer.get();
    }
    for (Layer* layer :
         {static_cast<Layer*>(ethernet_layer.get()), ip_layer.get(),
          static_cast<Layer*>(vlan_layer.get()), static_cast<Layer*>(udp_layer.get()),
          static_cast<Layer*>(rtp_layer.get())}) {
      if (layer != nullptr) {
        layer->SetReplicationManager(replication);
      }
    }
  }

  // The header room is full of what an earlier frame may have left there.
  bool Send(const char* payload) {
    if (top == nullptr) {
      Build();
    }
    const Bytes bytes = FromHex(payload);
    const std::uint32_t room = top->GetHeaderLength();
    const Bytes rubbish(room, 0xA5);
    PDU frame(room + static_cast<std::uint32_t>(bytes.size()));
    frame.WriteBytes(rubbish.data(), room, 0);
    frame.WriteBytes(bytes.data(), static_cast<std::uint32_t>(bytes.size()), room);
    return top->Send(frame);
  }

  // Sends one frame and returns the bytes from `offset` on.
  std::string SendPart(const char* payload, std::size_t offset, std::size_t count) {
    EXPECT_TRUE(Send(payload));
    return ToHex(std::span(wire.frames.back()).subspan(offset, count));
  }

  bool use_rtp = false;
  bool use_ipv6 = false;
  bool use_vlan = false;
  CErrorManagerBase* errors = nullptr;
  CReplicationMgrBase* replication = nullptr;
  CZebRTPClock clock{90000, 10000000, 1316, 0};
  EthernetFlowSpec ethernet;
  VlanTagSpec vlan{true, 5, 100};
  std::uint16_t inner_ether_type = 0x86DD;
  IpFlowSpec ip;
  IPv6HeaderSettings ipv6{};
  UdpSettings udp;
  RtpSettings rtp;

  RecordingSender wire;
  std::unique_ptr<EthernetDataFlowOut> ethernet_layer;
  std::unique_ptr<VLANDataFlowOut> vlan_layer;
  std::unique_ptr<Layer> ip_layer;
  std::unique_ptr<UdpDataFlowOut> udp_layer;
  std::unique_ptr<RtpDataFlowOut> rtp_layer;
  Sender* top = nullptr;
};

TEST(LayersTest, RtpOverIpv4CountsAndWraps) {
  Chain chain;
  chain.use_rtp = true;
  ASSERT_TRUE(chain.Send("47 1f ff 10 de ad be"));  // an odd length
  ASSERT_TRUE(chain.Send("47 1f ff 10 de ad be"));
  EXPECT_EQ(chain.top->GetHeaderLength(), 54U);
  EXPECT_EQ(ToHex(chain.wire.frames[0]),
            std::string(kEthernet) +
                "45 b8 00 2f ff ff 40 00 40 11 88 51 c0 a8 01 0a ef 01 01 01 "
                "0f a0 13 88 00 1b 5f 2e "
                "80 21 ff ff 00 00 00 00 12 34 56 78 47 1f ff 10 de ad be");
  EXPECT_EQ(ToHex(chain.wire.frames[1]),
            std::string(kEthernet) +
                "45 b8 00 2f 00 00 40 00 40 11 88 51 c0 a8 01 0a ef 01 01 01 "
                "0f a0 13 88 00 1b 5e d0 "
                "80 21 00 00 00 00 00 5e 12 34 56 78 47 1f ff 10 de ad be");
}

TEST(LayersTest, UdpOverTaggedIpv6) {
  Chain chain;
  chain.use_ipv6 = chain.use_vlan = true;
  chain.ethernet.destination = {0x33, 0x33, 0, 0, 0x12, 0x34};
  chain.ethernet.ether_type.WriteU16(0x8100, 0);
  ASSERT_TRUE(chain.Send("47 00 11 10"));
  EXPECT_EQ(ToHex(chain.wire.frames[0]),
            "33 33 00 00 12 34 02 00 00 00 00 0a 81 00 b0 64 86 dd "
            "6a b1 23 45 00 0c 11 40 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01 "
            "ff 3e 00 00 00 00 00 00 00 00 00 00 00 00 12 34 "
            "0f a0 13 88 00 0c 45 71 47 00 11 10");
}

TEST(LayersTest, ProtocolTwoAddsTheRouterAlertOption) {
  Chain chain;
  chain.ip.protocol = 2;
  chain.ip.dont_fragment = false;
  chain.ip.identification = 7;
  ASSERT_TRUE(chain.Send("47 00 11 10"));
  EXPECT_EQ(ToHex(chain.wire.frames[0]),
            std::string(kEthernet) +
                "46 b8 00 24 00 07 00 00 40 02 33 60 c0 a8 01 0a ef 01 01 01 94 04 00 00 "
                "0f a0 13 88 00 0c d2 e8 47 00 11 10");
}

TEST(LayersTest, FieldsKeepTheBitsThatTheWireHasRoomFor) {
  const struct {
    const char* what;
    void (*change)(Chain&);
    std::size_t offset;
    const char* bytes;
  } cases[] = {
      {"RTP version 5", [](Chain& c) { c.use_rtp = true, c.rtp.version = 5; }, 42, "40 21"},
      {"RTP extension", [](Chain& c) { c.use_rtp = true, c.rtp = {0, 33, 1, 0, 0, nullptr}; }, 42,
       "80 21 00 00 00 00 00 00 00 00 00 00"},
      {"marker bit in the payload type",
       [](Chain& c) { c.use_rtp = true, c.rtp.payload_type = 0x1A1; }, 43, "a1"},
      {"sequence number",
       [](Chain& c) {
         c.use_rtp = true;
         c.rtp.initial_sequence_number = 65536;
       },
       44, "00 00"},
      {"ports", [](Chain& c) { c.udp.source_port = 65537, c.udp.destination_port = 65538; }, 34,
       "00 01 00 02"},
      // The pseudo-header claims UDP all the same: the checksum stays that of protocol 17.
      {"IP protocol 6",
       [](Chain& c) {
         c.ip.protocol = 0x106;
         c.ip.identification = 1;
       },
       18, "00 01 40 00 40 06 88 6a c0 a8 01 0a ef 01 01 01 0f a0 13 88 00 0c d2 e8"},
      {"flow label", [](Chain& c) { c.use_ipv6 = true, c.ipv6.FlowLabel = 0xFFF12345; }, 14,
       "6a b1 23 45"},
      {"IPv6 version and next header",
       [](Chain& c) { c.use_ipv6 = true, c.ipv6.IPv6Version = 0x14, c.ipv6.NextHeader = 6; }, 14,
       "4a b1 23 45 00 0c 06 40"},
      {"tag",
       [](Chain& c) {
         c.use_vlan = true, c.vlan = {false, 9, 0x1005};
       },
       14, "20 05 86 dd"},
  };
  for (const auto& [what, change, offset, bytes] : cases) {
    Chain chain;
    change(chain);
    EXPECT_EQ(chain.SendPart("47 00 11 10", offset, FromHex(bytes).size()), bytes) << what;
  }
}

TEST(LayersTest, AZeroUdpChecksumIsSentAsOnes) {
  Chain chain;
  EXPECT_EQ(chain.SendPart("2a fd", 34, 10), "0f a0 13 88 00 0a ff ff 2a fd");
  EXPECT_EQ(chain.wire.frames[0].size(), 44U);  // nothing pads it
}

TEST(LayersTest, DamagedChecksumsAreOneTooHighAndNothingElseChanges) {
  const struct {
    bool use_ipv6;
    bool ip_error;
    const char* payload;
    std::size_t offset;  // of the damaged bytes
    const char* bytes;
  } cases[] = {
      {false, true, "47 00 11 10", 24, "88 61"},  // clean: 8860
      {false, false, "47 00 11 10", 40, "d2 e9"},
      {false, false, "2a fd", 40, "00 00"},  // clean: ffff
      {true, false, "47 00 11 10", 60, "45 72"},
      {true, true, "47 00 11 10", 60, "45 71"},  // no header checksum to damage
  };
  for (const auto& [use_ipv6, ip_error, payload, offset, bytes] : cases) {
    CErrorInsertionManager errors([] { return true; });
    Chain clean;
    Chain damaged;
    clean.use_ipv6 = damaged.use_ipv6 = use_ipv6;
    clean.ip.identification = damaged.ip.identification = 0;
    damaged.errors = &errors;
    ip_error ? errors.GenerateIPChecksumError() : errors.GenerateUDPChecksumError();
    errors.PrepareForPacket(0);
    ASSERT_TRUE(clean.Send(payload));
    EXPECT_EQ(damaged.SendPart(payload, offset, 2), bytes) << payload << offset;
    Bytes& twin = damaged.wire.frames[0];
    std::copy_n(clean.wire.frames[0].begin() + static_cast<std::ptrdiff_t>(offset), 2,
                twin.begin() + static_cast<std::ptrdiff_t>(offset));
    EXPECT_EQ(ToHex(twin), ToHex(clean.wire.frames[0]));
    ErrorStatistics counted;
    errors.CopyStatistics(counted);
    EXPECT_EQ(counted.ip_checksum_errors, ip_error && !use_ipv6 ? 1U : 0U);
    EXPECT_EQ(counted.udp_checksum_errors, ip_error ? 0U : 1U);
  }
}

TEST(LayersTest, ARefusedFrameCountsForIpv4ButNotForRtp) {
  Chain chain;
  chain.use_rtp = true;
  chain.ip.identification = 7;
  chain.rtp.initial_sequence_number = 7;
  chain.wire.accept = 0;
  EXPECT_FALSE(chain.Send("47 00 11 10"));
  chain.wire.accept = 1;
  EXPECT_EQ(chain.SendPart("47 00 11 10", 18, 2), "00 08");
  EXPECT_EQ(ToHex(std::span(chain.wire.frames[0]).subspan(44, 2)), "00 07");
}

TEST(LayersTest, ReplicatedCopiesShareCountersAndErrorsButNotFields) {
  ProtocolHeadersSettings settings{};
  settings.IPHeaderSettings = {4, 0xB8,          0, 0, 0, 64, 7, 0, 17, {192, 168, 1, 10},
                               0, {239, 1, 1, 1}};
  settings.UDPHeaderSettings = {4000, 5000, 0};
  settings.RTPHeaderSettings.PayloadType = 33;
  settings.RTPHeaderSettings.SequenceNumber = 9;
  settings.RTPHeaderSettings.SSRC = 0x12345678;
  ProtocolHeadersIncrements increments{};
  increments.IPHeaderIncrements.DestinationIPIncrement[3] = 1;
  increments.UDPHeaderIncrements.DestinationPortIncrement = 2;
  CZebReplicationMgr replication;
  replication.SetIncrements(increments, 2);
  replication.SetHeaderSettings(settings);
  CErrorInsertionManager errors([] { return true; });

  Chain chain;
  chain.use_rtp = true;
  chain.replication = &replication;
  chain.errors = &errors;
  const char* clean[] = {
      "45 b8 00 2c 00 07 40 00 40 11 88 4d c0 a8 01 0a ef 01 01 01 0f a0 13 88 00 18 e9 f9 "
      "80 21 00 09 00 00 00 00 12 34 56 78 47 00 11 10",
      "45 b8 00 2c 00 07 40 00 40 11 88 4c c0 a8 01 0a ef 01 01 02 0f a0 13 8a 00 18 e9 98 "
      "80 21 00 09 00 00 00 5e 12 34 56 78 47 00 11 10",
      // The clock goes on: 2 x 94.752 ticks.
      "45 b8 00 2c 00 07 40 00 40 11 88 4b c0 a8 01 0a ef 01 01 03 0f a0 13 8c 00 18 e9 36 "
      "80 21 00 09 00 00 00 bd 12 34 56 78 47 00 11 10",
  };
  replication.StartDatagram();
  for (const char* frame : clean) {
    EXPECT_EQ(chain.SendPart("47 00 11 10", 14, 44), frame);
    replication.NextCopy();
  }
  // Both checksums of all copies of the next datagram are one too high.
  errors.GenerateIPChecksumError();
  errors.GenerateUDPChecksumError();
  replication.StartDatagram();
  for (const char* ip_checksum : {"88 4d", "88 4c", "88 4b"}) {  // clean with identification 8:
    EXPECT_EQ(chain.SendPart("47 00 11 10", 18, 2), "00 08");    // 884c, 884b, 884a
    EXPECT_EQ(ToHex(std::span(chain.wire.frames.back()).subspan(24, 2)), ip_checksum);
    replication.NextCopy();
  }
  ErrorStatistics counted;
  errors.CopyStatistics(counted);
  EXPECT_EQ(counted.ip_checksum_errors, 1U);
  EXPECT_EQ(counted.udp_checksum_errors, 1U);
}

}  // namespace
}  // namespace ipplayout
