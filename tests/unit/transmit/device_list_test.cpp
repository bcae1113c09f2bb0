#include "transmit/device_list.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "tests/support/fake_driver.h"

namespace ipplayout {
namespace {

class DeviceListTest : public testing::Test {
 protected:
  void Fill(std::vector<Adapter> adapters) {
    driver_.adapters = std::move(adapters);
    testing::internal::CaptureStdout();
    list_.Enumerate();
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
  }

  FakeDriver driver_;
  DeviceList list_{driver_};
};

TEST_F(DeviceListTest, PositionsOutsideTheListHaveNoDevice) {
  EXPECT_EQ(list_.At(0), nullptr);
  Fill({{"rpcap://a", "", {}}, {"rpcap://b", "", {}}});
  EXPECT_EQ(list_.Size(), 2);
  EXPECT_EQ(list_.At(1)->GetName(), "rpcap://b");
  for (const int position : {-1, 2, INT_MAX, INT_MIN}) {
    EXPECT_EQ(list_.At(position), nullptr) << position;
  }
  list_.Clear();
  EXPECT_EQ(list_.Size(), 0);
}

TEST_F(DeviceListTest, ArrayHoldsEveryFieldOfEveryDevice) {
  AdapterAddress ipv4{AddressFamily::kIPv4, {255, 255, 255, 254}, 0};
  AdapterAddress netmask{AddressFamily::kIPv4, {255, 255, 255, 0}, 0};
  AdapterAddress ipv6{AddressFamily::kIPv6, {}, 0};
  ipv6.bytes.fill(0xAB);
  const MacAddress mac{1, 2, 3, 4, 5, 6};
  driver_.macs["b"] = mac;
  Fill({{"rpcap://a", "first", {}},
        {"rpcap://b", "second", {{ipv4, netmask}, {netmask, netmask}, {ipv6, {}}}}});
  list_.CreateArray();
  const DeviceListEntry* entries = list_.Array();
  ASSERT_NE(entries, nullptr);

  EXPECT_STREQ(entries[0].Name, "rpcap://a");
  EXPECT_EQ(entries[0].IPv4AddressCount, 0);
  EXPECT_EQ(entries[0].IPv6AddressCount, 0);
  EXPECT_EQ(entries[0].IPv4NetmaskCount, 0);

  const DeviceListEntry& entry = entries[1];
  EXPECT_EQ(entry.Index, 1);
  EXPECT_STREQ(entry.Name, "rpcap://b");
  EXPECT_STREQ(entry.Description, "second");
  ASSERT_EQ(entry.IPv4AddressCount, 2);
  EXPECT_STREQ(entry.IPv4Addresses[0], "255.255.255.254");
  EXPECT_STREQ(entry.IPv4Addresses[1], "255.255.255.0");
  ASSERT_EQ(entry.IPv4NetmaskCount, 2);
  EXPECT_STREQ(entry.IPv4Netmasks[0], "255.255.255.0");
  ASSERT_EQ(entry.IPv6AddressCount, 1);
  EXPECT_STREQ(entry.IPv6Addresses[0], "abab:abab:abab:abab:abab:abab:abab:abab");
  EXPECT_EQ(std::memcmp(entry.MacAddress, mac.data(), 6), 0);
}

TEST_F(DeviceListTest, LongTextsAreCutAndTerminated) {
  const std::string name = "rpcap://" + std::string(300, 'n');
  Fill({{name, std::string(199, 'd'), {}}, {"rpcap://b", std::string(200, 'd'), {}}});
  list_.CreateArray();
  EXPECT_EQ(std::string(list_.Array()[0].Name), name.substr(0, 199));
  EXPECT_EQ(std::string(list_.Array()[0].Description), std::string(199, 'd'));
  EXPECT_EQ(std::string(list_.Array()[1].Description), std::string(199, 'd'));
  EXPECT_EQ(list_.At(0)->GetName(), name);
}

TEST_F(DeviceListTest, ArrayComesAndGoesWithoutTheDevices) {
  EXPECT_EQ(list_.Array(), nullptr);
  list_.DeleteArray();
  Fill({{"rpcap://a", "", {}}});
  EXPECT_EQ(list_.Array(), nullptr);
  list_.CreateArray();
  list_.CreateArray();  // the sanitizer build sees whether the first one is lost
  EXPECT_STREQ(list_.Array()[0].Name, "rpcap://a");
  list_.DeleteArray();
  EXPECT_EQ(list_.Array(), nullptr);
  EXPECT_EQ(list_.Size(), 1);

  list_.CreateArray();
  Fill({{"rpcap://b", "", {}}});  // an array of the shorter list would be read past its end
  EXPECT_EQ(list_.Array(), nullptr);
  EXPECT_EQ(list_.Size(), 2);
  list_.CreateArray();
  list_.Clear();
  EXPECT_EQ(list_.Array(), nullptr);
}

}  // namespace
}  // namespace ipplayout
