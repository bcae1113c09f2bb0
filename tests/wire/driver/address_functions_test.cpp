// The exported address functions, asking real neighbours on a network of the test's own.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ipplayout/ipplayout.h"
#include "platform/address_text.h"
#include "tests/support/test_network.h"

namespace ipplayout {
namespace {

constexpr MacAddress kUntouched{9, 9, 9, 9, 9, 9};
constexpr int kIPv4 = 0;
constexpr int kIPv6 = 1;

class WireAddresses : public testing::Test {
 protected:
  WireAddresses() {
    network_.near.Run("ip address add 10.77.0.1/24 dev near0");
    network_.far.Run("ip address add 10.77.0.2/24 dev far0");
    network_.near.SetSysctl("net/ipv4/neigh/near0/mcast_solicit", "1");
    network_.near.SetSysctl("net/ipv4/neigh/near0/retrans_time_ms", "100");
  }
  ~WireAddresses() override { CleanupIpPlayout(); }

  // Lists the adapters and finds near0.
  void Init() {
    const NetworkNamespace::Visit visit(network_.near);
    testing::internal::CaptureStdout();
    InitIpPlayout();
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
    int count = 0;
    const DeviceListEntry* entries = GetListOfDevices(&count);
    for (int i = 0; i < count; ++i) {
      if (std::string(entries[i].Name) == "rpcap://near0") {
        position_ = i;
      }
    }
    ASSERT_GE(position_, 0);
  }

  int Resolve(int version, const std::vector<std::uint8_t>& target) {
    const NetworkNamespace::Visit visit(network_.near);
    mac_ = kUntouched;
    std::uint8_t* mac = mac_.data();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int result = GetMacAddressForIP(version, target.data(), &mac, position_);
    std::fflush(stdout);
    printed_ = testing::internal::GetCapturedStdout();
    debug_ = testing::internal::GetCapturedStderr();
    return result;
  }
  int ResolveIPv6(const char* target) {
    const auto bytes = platform::ParseIPv6(target).value();
    return Resolve(kIPv6, {bytes.begin(), bytes.end()});
  }

  TestNetwork network_;
  int position_ = -1;
  MacAddress mac_ = kUntouched;
  std::string printed_;
  std::string debug_;
};

TEST_F(WireAddresses, NeighbourGatewayAndSilence) {
  network_.near.Run("ip route add default via 10.77.0.2");
  Init();
  EXPECT_EQ(Resolve(kIPv4, {10, 77, 0, 1}), 1);
  EXPECT_EQ(mac_, TestNetwork::kNearMac);
  EXPECT_EQ(Resolve(kIPv4, {10, 77, 0, 2}), 1);
  EXPECT_EQ(mac_, TestNetwork::kFarMac);
  EXPECT_EQ(printed_ + debug_, "");

  EXPECT_EQ(Resolve(kIPv4, {192, 0, 2, 1}), 1);
  EXPECT_EQ(mac_, TestNetwork::kFarMac);
  EXPECT_EQ(printed_, " (ERROR_GEN_FAILURE)\n");

  EXPECT_EQ(Resolve(kIPv4, {10, 77, 0, 9}), 0);
  EXPECT_EQ(debug_, "Error: SendArp failed with error: 67");
  EXPECT_EQ(printed_, " (ERROR_GEN_FAILURE)\n");
  EXPECT_EQ(Resolve(2, {10, 77, 0, 2}), 0);
}

TEST_F(WireAddresses, IPv6NeighbourAnswersTheSolicitation) {
  AddIPv6Address(network_.near, "near0", "2001:db8::1/64");
  AddIPv6Address(network_.far, "far0", "2001:db8::aa:bbcc/64");
  Init();
  FrameTap far(network_.far, "far0");
  // On a busy machine an answer may miss the ten reads; a host asks again.
  int found = 0;
  for (int attempt = 0; attempt < 20 && found == 0; ++attempt) {
    found = ResolveIPv6("2001:db8::aa:bbcc");
  }
  EXPECT_EQ(found, 1);
  EXPECT_EQ(mac_, TestNetwork::kFarMac);

  std::vector<std::uint8_t> solicitation;
  for (const TappedFrame& frame : far.Drain()) {
    if (frame.bytes.size() == 86 && frame.bytes[54] == 135) {
      solicitation = frame.bytes;
    }
  }
  EXPECT_EQ(Dissect(solicitation,
                    {"eth.dst", "ipv6.dst", "ipv6.hlim", "icmpv6.type", "icmpv6.checksum.status",
                     "icmpv6.nd.ns.target_address", "icmpv6.opt.linkaddr"}),
            "33:33:ff:aa:bb:cc\tff02::1:ffaa:bbcc\t255\t135\t1\t2001:db8::aa:bbcc\t"
            "02:00:00:00:00:01");

  EXPECT_EQ(ResolveIPv6("2001:db8::99"), 0);  // nobody's
  EXPECT_EQ(mac_, kUntouched);
  EXPECT_EQ(ResolveIPv6("2001:db8::1"), 1);
  EXPECT_EQ(mac_, TestNetwork::kNearMac);
  EXPECT_EQ(printed_ + debug_, "");
}

TEST_F(WireAddresses, TwoIPv6AddressesCannotAsk) {
  AddIPv6Address(network_.near, "near0", "2001:db8::1/64");
  network_.near.Run("ip address add fe80::1/64 dev near0 nodad");
  AddIPv6Address(network_.far, "far0", "2001:db8::aa:bbcc/64");
  Init();
  EXPECT_EQ(ResolveIPv6("2001:db8::aa:bbcc"), 0);
  EXPECT_EQ(ResolveIPv6("fe80::1"), 1);
}

TEST_F(WireAddresses, NullPointersAndPositionsOutsideTheList) {
  Init();
  std::uint8_t* none = nullptr;
  std::uint8_t* mac = mac_.data();
  const std::uint8_t target[16] = {10, 77, 0, 9};
  EXPECT_EQ(GetMacAddressForIP(kIPv4, nullptr, &mac, 0), 0);
  EXPECT_EQ(GetMacAddressForIP(kIPv4, target, nullptr, 0), 0);
  EXPECT_EQ(GetMacAddressForIP(kIPv4, target, &none, 0), 0);
  EXPECT_EQ(GetMacAddressForIP(kIPv6, target, &mac, 99), 0);
  EXPECT_EQ(GetMacAddressForIP(kIPv6, target, &mac, -1), 0);
  EXPECT_EQ(GetHostIPAddress(nullptr), 0);
  char* no_text = nullptr;
  EXPECT_EQ(GetHostIPAddress(&no_text), 0);
  char text[] = "1.2.3.4";
  std::uint8_t bytes[4];
  EXPECT_EQ(GetIpAddressBytes(nullptr, bytes), 0);
  EXPECT_EQ(GetIpAddressBytes(text, nullptr), 0);
  EXPECT_EQ(GetIpAddressBytes(text, bytes), 1);
  EXPECT_EQ(mac_, kUntouched);
}

TEST_F(WireAddresses, HostAddressIsAnAddress) {
  const NetworkNamespace::Visit visit(network_.near);
  char buffer[16];
  std::memset(buffer, 'x', sizeof buffer);
  char* text = buffer;
  EXPECT_EQ(GetHostIPAddress(&text), 1);
  ASSERT_NE(std::memchr(buffer, 0, sizeof buffer), nullptr);
  EXPECT_TRUE(platform::ParseIPv4(buffer)) << buffer;
}

}  // namespace
}  // namespace ipplayout
