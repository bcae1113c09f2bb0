#include "transmit/device_enumerator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/fake_driver.h"
#include "transmit/pcap_rt_interface.h"

namespace ipplayout {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr MacAddress kMac{0x02, 0x0A, 0x0B, 0xFF, 0x00, 0x01};
constexpr char kMacLine[] = "The MAC address of the adapter is 02:0a:0b:ff:00:01\n";

AdapterAddress IPv4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  return {AddressFamily::kIPv4, {a, b, c, d}, 0};
}

AdapterAddress IPv6(std::uint16_t first, std::uint8_t last, std::uint32_t scope_id = 0) {
  AdapterAddress address{AddressFamily::kIPv6, {}, scope_id};
  address.bytes[0] = static_cast<std::uint8_t>(first >> 8);
  address.bytes[1] = static_cast<std::uint8_t>(first);
  address.bytes[15] = last;
  return address;
}

class DeviceEnumeratorTest : public testing::Test {
 protected:
  // Lists the adapters and gives what was printed.
  std::string Enumerate() {
    testing::internal::CaptureStdout();
    DeviceEnumerator(driver_).EnumerateDevices(devices_);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }

  FakeDriver driver_;
  std::vector<std::unique_ptr<DeviceIdentifier>> devices_;
};

TEST_F(DeviceEnumeratorTest, AdapterBecomesDevice) {
  driver_.adapters = {{{"rpcap://eth0", "Fast one", {{IPv4(10, 0, 0, 1), IPv4(255, 0, 0, 0)}}}}};
  driver_.macs["eth0"] = kMac;
  EXPECT_EQ(Enumerate(), kMacLine);
  ASSERT_EQ(devices_.size(), 1u);
  const DeviceIdentifier& device = *devices_[0];
  EXPECT_EQ(device.GetName(), "rpcap://eth0");
  EXPECT_EQ(device.GetDescription(), "Fast one");
  EXPECT_EQ(device.GetIndex(), 0);
  EXPECT_EQ(device.GetMacAddress(), kMac);
  std::vector<std::string> netmasks;
  EXPECT_THAT(device.GetIPv4Addresses(netmasks), ElementsAre("10.0.0.1"));
  EXPECT_THAT(netmasks, ElementsAre("255.0.0.0"));
  EXPECT_THAT(device.GetIPv6Addresses(), IsEmpty());
  EXPECT_EQ(device.GetScopeId(), 0);
}

TEST_F(DeviceEnumeratorTest, DescriptionFallsBackToTheName) {
  driver_.adapters = {{{"rpcap://eth0", std::nullopt, {}}, {"rpcap://eth1", "", {}}}};
  Enumerate();
  ASSERT_EQ(devices_.size(), 2u);
  EXPECT_EQ(devices_[0]->GetDescription(), "Network device (rpcap://eth0)");
  EXPECT_EQ(devices_[1]->GetDescription(), "");
}

TEST_F(DeviceEnumeratorTest, SkippedAdaptersKeepTheirPositions) {
  driver_.adapters = {{
      {R"(rpcap://\Device\NPF_GenericDialupAdapter)", "Adapter for dial-up", {}},
      {"rpcap://a", std::nullopt, {}},
      {R"(rpcap://\Device\NPF_GenericNdisWanAdapter7)", std::nullopt, {}},
      {"rpcap://b", "An MS Tunnel Interface Driver", {}},
      {"rpcap://c", "Tamarin NDIS Miniport Driver", {}},
      {"no prefix", "Ethernet", {}},
      {"rpcap://MS Tunnel Interface Driver", std::nullopt, {}},  // a name, not a description
      {"rpcap://d", R"(\Device\NPF_GenericDialupAdapter)", {}},  // a description, not a name
  }};
  for (const char* name : {"a", "d", "MS Tunnel Interface Driver"}) {
    driver_.macs[name] = kMac;
  }
  EXPECT_EQ(Enumerate(), std::string(kMacLine) + kMacLine + kMacLine);
  ASSERT_EQ(devices_.size(), 3u);
  EXPECT_EQ(devices_[0]->GetIndex(), 1);
  EXPECT_EQ(devices_[1]->GetIndex(), 6);
  EXPECT_EQ(devices_[2]->GetIndex(), 7);
  EXPECT_THAT(driver_.MacQueries(), ElementsAre("a", "MS Tunnel Interface Driver", "d"));
}

TEST_F(DeviceEnumeratorTest, UnreadableMacIsZeroAndTold) {
  driver_.adapters = {
      {{"rpcap://a", "", {}}, {"rpcap://b", "", {}}, {"rpcap://c", "", {}}, {"rpcap://a", "", {}}}};
  driver_.macs["a"] = kMac;
  driver_.mac_results["c"] = CaptureDriver::MacResult::kQueryFailed;
  driver_.system_error = 0x5B;
  EXPECT_EQ(Enumerate(), std::string(kMacLine) +
                             "Unable to open the adapter, Error Code : 5b\n"
                             "error retrieving the MAC address of the adapter!\n" +
                             kMacLine);
  ASSERT_EQ(devices_.size(), 4u);
  EXPECT_EQ(devices_[1]->GetMacAddress(), MacAddress{});
  EXPECT_EQ(devices_[2]->GetMacAddress(), MacAddress{});
  EXPECT_EQ(devices_[3]->GetMacAddress(), kMac);

  MacAddress mac{1, 2, 3, 4, 5, 6};
  DeviceEnumerator enumerator(driver_);
  EXPECT_FALSE(enumerator.QueryAdapterMac("b", mac));
  EXPECT_TRUE(enumerator.QueryAdapterMac("c", mac));
  EXPECT_EQ(mac, (MacAddress{1, 2, 3, 4, 5, 6}));
}

TEST_F(DeviceEnumeratorTest, FailedListAddsNothing) {
  driver_.adapters = {{{"rpcap://a", "", {}}}};
  Enumerate();
  driver_.adapters = std::nullopt;
  EXPECT_EQ(Enumerate(), "");
  EXPECT_EQ(devices_.size(), 1u);
}

TEST_F(DeviceEnumeratorTest, CollectsAddressesOfBothFamilies) {
  const AdapterAddress other{AddressFamily::kOther, {}, 0};
  const std::string unknown = "\tAddress Family Name: Unknown\n";
  const Adapter adapter{"rpcap://a",
                        std::nullopt,
                        {
                            {IPv4(10, 0, 0, 1), IPv4(255, 255, 255, 0)},
                            {IPv6(0xFE80, 1, 7), IPv6(0xFFFF, 0)},  // one line, for its netmask
                            {other, std::nullopt},                  // one
                            {IPv4(192, 0, 2, 255), std::nullopt},   // none
                            {IPv6(0x2001, 2), other},               // one
                            {std::nullopt, IPv4(255, 255, 0, 0)},   // none
                            {std::nullopt, std::nullopt},           // none
                        }};
  testing::internal::CaptureStdout();
  const DeviceAddresses addresses = DeviceEnumerator::CollectAddresses(adapter);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), unknown + unknown + unknown);
  EXPECT_THAT(addresses.ipv4, ElementsAre("10.0.0.1", "192.0.2.255"));
  EXPECT_THAT(addresses.ipv4_netmasks, ElementsAre("255.255.255.0", "255.255.0.0"));
  EXPECT_THAT(addresses.ipv6, ElementsAre("fe80::1", "2001::2"));
  EXPECT_EQ(addresses.scope_id, 7);
}

TEST_F(DeviceEnumeratorTest, DeviceMakesInterfacesOnItsAdapter) {
  driver_.adapters = {{{"rpcap://eth7", "", {}}}};
  Enumerate();
  const std::uint32_t read_timeout_ms = 25;
  auto capture = devices_.at(0)->CreateInterface(&read_timeout_ms);
  ASSERT_NE(capture, nullptr);
  EXPECT_TRUE(capture->Open());
  ASSERT_EQ(driver_.Opened().size(), 1u);
  EXPECT_EQ(driver_.Opened()[0].name, "rpcap://eth7");
  EXPECT_EQ(driver_.Opened()[0].options.read_timeout, std::chrono::milliseconds(25));
  devices_[0]->DestroyInterface(std::move(capture));
  EXPECT_EQ(driver_.OpenHandles(), 0);
  devices_[0]->DestroyInterface(nullptr);
}

}  // namespace
}  // namespace ipplayout
