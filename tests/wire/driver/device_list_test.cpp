// The device list as a host sees it, on interfaces that the test made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ipplayout/ipplayout.h"
#include "tests/support/test_network.h"

namespace ipplayout {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

std::vector<std::string> Texts(const char* const* texts, int count) {
  return {texts, texts + count};
}

class WireDeviceList : public testing::Test {
 protected:
  // What listing the adapters of `near` printed.
  std::string Init() {
    const NetworkNamespace::Visit visit(network_.near);
    testing::internal::CaptureStdout();
    EXPECT_EQ(InitIpPlayout(), 1);
    std::fflush(stdout);
    std::string printed = testing::internal::GetCapturedStdout();
    int count = 0;
    const DeviceListEntry* first = GetListOfDevices(&count);
    entries_ = {first, first + count};
    return printed;
  }
  ~WireDeviceList() override { CleanupIpPlayout(); }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const DeviceListEntry& entry : entries_) {
      names.emplace_back(entry.Name);
    }
    return names;
  }
  const DeviceListEntry& Entry(const std::string& name) const {
    for (const DeviceListEntry& entry : entries_) {
      if (entry.Name == name) {
        return entry;
      }
    }
    throw std::out_of_range(name);
  }

  TestNetwork network_;
  std::vector<DeviceListEntry> entries_;
};

TEST_F(WireDeviceList, ListsWhatIsFramedAsEthernetAndNothingElse) {
  network_.near.Run("ip tuntap add mode tun name tun0 && ip link set tun0 up");
  network_.near.Run("ip link add name bridge0 address 02:00:00:00:00:03 type bridge");
  const std::string printed = Init();
  EXPECT_THAT(Names(), UnorderedElementsAre("rpcap://near0", "rpcap://lo", "rpcap://bridge0"));
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    EXPECT_EQ(entries_[i].Index, static_cast<int>(i));
    EXPECT_EQ(std::string(entries_[i].Description),
              "Network device (" + std::string(entries_[i].Name) + ")");
  }
  EXPECT_EQ(std::memcmp(Entry("rpcap://near0").MacAddress, TestNetwork::kNearMac.data(), 6), 0);
  EXPECT_THAT(printed, HasSubstr("The MAC address of the adapter is 02:00:00:00:00:01\n"));
  EXPECT_THAT(printed, HasSubstr("The MAC address of the adapter is 02:00:00:00:00:03\n"));
  EXPECT_THAT(printed, HasSubstr("The MAC address of the adapter is 00:00:00:00:00:00\n"));
  EXPECT_THAT(printed, Not(HasSubstr("Unable")));
}

TEST_F(WireDeviceList, AddressesComeWithTheirNetmasks) {
  network_.near.Run(
      "ip address add 10.77.0.1/24 dev near0 && ip address add 172.20.1.2/14 dev near0");
  AddIPv6Address(network_.near, "near0", "2001:db8::1/64");
  network_.near.Run("ip address add fe80::77/64 dev near0 nodad");
  const std::string printed = Init();
  const DeviceListEntry& near0 = Entry("rpcap://near0");
  EXPECT_THAT(Texts(near0.IPv4Addresses, near0.IPv4AddressCount),
              ElementsAre("10.77.0.1", "172.20.1.2"));
  EXPECT_THAT(Texts(near0.IPv4Netmasks, near0.IPv4NetmaskCount),
              ElementsAre("255.255.255.0", "255.252.0.0"));
  EXPECT_THAT(Texts(near0.IPv6Addresses, near0.IPv6AddressCount),
              UnorderedElementsAre("2001:db8::1", "fe80::77"));
  // One line for the netmask of each of the two IPv6 addresses, none for link-layer addresses.
  const std::string line = "\tAddress Family Name: Unknown\n";
  std::size_t lines = 0;
  for (auto at = printed.find(line); at != std::string::npos; at = printed.find(line, at + 1)) {
    ++lines;
  }
  EXPECT_EQ(lines, 2u);
}

TEST_F(WireDeviceList, ArrayComesAndGoes) {
  Init();
  EXPECT_EQ(CreateListOfDevices(), 1);
  int count = -1;
  ASSERT_NE(GetListOfDevices(&count), nullptr);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(DeleteListOfDevices(), 1);
  EXPECT_EQ(GetListOfDevices(&count), nullptr);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(GetListOfDevices(nullptr), nullptr);
  CleanupIpPlayout();
  GetListOfDevices(&count);
  EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace ipplayout
