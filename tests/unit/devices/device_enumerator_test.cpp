// SPDX-License-Identifier: MIT
// Adapters that a test machine does not have.
#include "devices/device_enumerator.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "devices/device_list.h"
#include "tests/support/fake_driver.h"

namespace ipplayout {
namespace {

constexpr MacAddress kMac{0x02, 0x0A, 0x0B, 0xFF, 0x00, 0x01};
constexpr char kMacLine[] = "The MAC address of the adapter is 02:0a:0b:ff:00:01\n";

class DeviceEnumeratorTest : public testing::Test {
 protected:
  // Lists the adapters and gives what was printed.
  std::string Enumerate(std::vector<Adapter> adapters) {
    driver_.adapters = std::move(adapters);
    testing::internal::CaptureStdout();
    list_.Enumerate();
    return testing::internal::GetCapturedStdout();
  }

  FakeDriver driver_;
  DeviceList list_{driver_};
};

TEST_F(DeviceEnumeratorTest, SkippedAdaptersKeepTheirPositions) {
  for (const char* name : {"a", "d", "MS Tunnel Interface Driver"}) {
    driver_.macs[name] = kMac;
  }
  const std::string printed = Enumerate({
      {R"(rpcap://\Device\NPF_GenericDialupAdapter)", "Adapter for dial-up", {}},
      {"rpcap://a", std::nullopt, {}},
      {R"(rpcap://\Device\NPF_GenericNdisWanAdapter7)", std::nullopt, {}},
      {"rpcap://b", "An MS Tunnel Interface Driver", {}},
      {"rpcap://c", "Tamarin NDIS Miniport Driver", {}},
      {"no prefix", "Ethernet", {}},
      {"rpcap://MS Tunnel Interface Driver", "", {}},            // a name, not a description
      {"rpcap://d", R"(\Device\NPF_GenericDialupAdapter)", {}},  // a description, not a name
  });
  EXPECT_EQ(printed, std::string(kMacLine) + kMacLine + kMacLine);
  ASSERT_EQ(list_.Size(), 3);
  EXPECT_EQ(list_.At(0)->GetDescription(), "Network device (rpcap://a)");
  EXPECT_EQ(list_.At(1)->GetDescription(), "");
  for (const auto& [position, index] : {std::pair(0, 1), {1, 6}, {2, 7}}) {
    EXPECT_EQ(list_.At(position)->GetIndex(), index);
    EXPECT_EQ(list_.At(position)->GetMacAddress(), kMac);
  }
  EXPECT_EQ(list_.At(-1), nullptr);
  EXPECT_EQ(list_.At(3), nullptr);
}

TEST_F(DeviceEnumeratorTest, UnreadableMacIsZeroAndTold) {
  driver_.macs["a"] = kMac;
  driver_.mac_results["c"] = CaptureDriver::MacResult::kQueryFailed;
  driver_.system_error = 0x5B;
  EXPECT_EQ(Enumerate({{"rpcap://a", "", {}}, {"rpcap://b", "", {}}, {"rpcap://c", "", {}}}),
            std::string(kMacLine) + "Unable to open the adapter, Error Code : 5b\n" +
                "error retrieving the MAC address of the adapter!\n");
  EXPECT_EQ(list_.At(1)->GetMacAddress(), MacAddress{});
  EXPECT_EQ(list_.At(2)->GetMacAddress(), MacAddress{});
}

TEST_F(DeviceEnumeratorTest, TheArrayHasEachAddressWhole) {
  const auto ipv4 = [](std::uint8_t last) {
    AdapterAddress address;
    address.family = AddressFamily::kIPv4;
    address.bytes = {203, 111, 255, last};
    return address;
  };
  AdapterAddress local;
  local.family = AddressFamily::kIPv6;
  local.bytes = {0xFE, 0x80, 0x11, 0x11, 0x22, 0x22, 0x33, 0x33,
                 0x44, 0x44, 0x55, 0x55, 0x66, 0x66, 0x77, 0x77};
  local.scope_id = 3;
  AdapterAddress global = local;
  global.bytes[0] = 0x20;
  global.scope_id = 0;
  Enumerate(
      {{"rpcap://a",
        "",
        {{ipv4(201), ipv4(240)}, {ipv4(202), {}}, {local, {}}, {global, {}}, {ipv4(203), {}}}}});
  list_.CreateArray();
  const DeviceListEntry& entry = list_.Array()[0];
  ASSERT_EQ(entry.IPv4AddressCount, 3);
  ASSERT_EQ(entry.IPv4NetmaskCount, 1);
  ASSERT_EQ(entry.IPv6AddressCount, 2);
  EXPECT_STREQ(entry.IPv4Addresses[2], "203.111.255.203");
  EXPECT_STREQ(entry.IPv4Netmasks[0], "203.111.255.240");
  EXPECT_STREQ(entry.IPv6Addresses[0], "fe80:1111:2222:3333:4444:5555:6666:7777");
  EXPECT_STREQ(entry.IPv6Addresses[1], "2080:1111:2222:3333:4444:5555:6666:7777");
  EXPECT_EQ(list_.At(0)->GetScopeId(), 3);
}

TEST_F(DeviceEnumeratorTest, TheArrayCutsLongTextsAndFollowsTheList) {
  const std::string name = "rpcap://" + std::string(300, 'n');
  Enumerate({{name, std::string(200, 'd'), {}}});
  EXPECT_EQ(list_.Array(), nullptr);
  list_.CreateArray();
  list_.CreateArray();  // the sanitizer build sees whether the first one is lost
  ASSERT_NE(list_.Array(), nullptr);
  EXPECT_EQ(std::string(list_.Array()[0].Name), name.substr(0, 199));
  EXPECT_EQ(std::string(list_.Array()[0].Description), std::string(199, 'd'));
  EXPECT_EQ(list_.At(0)->GetName(), name);
  Enumerate({{"rpcap://b", "", {}}});  // an array of the shorter list would be read past its end
  EXPECT_EQ(list_.Array(), nullptr);
  EXPECT_EQ(list_.Size(), 2);
  driver_.adapters = std::nullopt;  // the list fails: adds nothing
  list_.Enumerate();
  EXPECT_EQ(list_.Size(), 2);
}

}  // namespace
}  // namespace ipplayout
