#include "transmit/address_resolution.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/fake_driver.h"

namespace ipplayout {
namespace {

using platform::IPv4Address;
using platform::IPv6Address;
using platform::NeighbourReply;
using platform::NeighbourResult;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr MacAddress kOwnMac{0x02, 0, 0, 0, 0, 0x01};
constexpr MacAddress kOtherMac{0x02, 0, 0, 0, 0, 0x02};
constexpr MacAddress kUnset{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr MacAddress kUntouched{9, 9, 9, 9, 9, 9};
constexpr IPv4Address kOnSubnet{10, 1, 0, 77};
constexpr IPv4Address kOffSubnet{192, 0, 2, 1};
constexpr IPv4Address kGateway{10, 1, 0, 254};
constexpr char kEmptyReply[] = "Warning: SendArp completed successfully, but returned length=0\n";

NeighbourReply Failed(NeighbourResult result) {
  return {result, 0, kUnset};
}
NeighbourReply Found(const MacAddress& mac) {
  return {NeighbourResult::kDone, 6, mac};
}
NeighbourReply Empty() {
  return {NeighbourResult::kDone, 0, kUnset};
}

struct FakeNeighbours final : platform::NeighbourService {
  NeighbourReply ResolveNeighbour(const IPv4Address& target,
                                  const std::string& interface) override {
    asked.emplace_back(target, interface);
    NeighbourReply reply = replies.front();
    replies.pop_front();
    return reply;
  }
  std::optional<IPv4Address> BestRoute(const IPv4Address& target, const IPv4Address& source,
                                       const std::string& interface) override {
    routes_asked.emplace_back(target, source);
    route_interface = interface;
    return route;
  }

  std::deque<NeighbourReply> replies;
  std::optional<IPv4Address> route;
  std::vector<std::pair<IPv4Address, std::string>> asked;
  std::vector<std::pair<IPv4Address, IPv4Address>> routes_asked;
  std::string route_interface;
};

AddressEntry IPv4Entry(const IPv4Address& address, const IPv4Address& netmask) {
  AddressEntry entry{AdapterAddress{AddressFamily::kIPv4, {}, 0},
                     AdapterAddress{AddressFamily::kIPv4, {}, 0}};
  std::copy(address.begin(), address.end(), entry.address->bytes.begin());
  std::copy(netmask.begin(), netmask.end(), entry.netmask->bytes.begin());
  return entry;
}

AddressEntry IPv6Entry(std::uint8_t last) {
  AddressEntry entry{AdapterAddress{AddressFamily::kIPv6, {0x20, 0x01, 0x0D, 0xB8}, 0}, {}};
  entry.address->bytes[15] = last;
  return entry;
}

IPv6Address IPv6(std::uint8_t last) {
  IPv6Address address{0x20, 0x01, 0x0D, 0xB8};
  address[15] = last;
  return address;
}

class AddressResolverTest : public testing::Test {
 protected:
  // Position 0 has IPv4 10.1.0.1/16 and 10.2.0.1/16 and IPv6 ::1; position 1 has two IPv6
  // addresses, ::3 and ::4, and nothing else; position 2 has no address.
  AddressResolverTest() {
    driver_.macs = {{"one", kOwnMac}, {"two", kOwnMac}, {"three", kOwnMac}};
    driver_.adapters = {{{"rpcap://one",
                          "",
                          {IPv4Entry({10, 1, 0, 1}, {255, 255, 0, 0}),
                           IPv4Entry({10, 2, 0, 1}, {255, 255, 0, 0}), IPv6Entry(1)}},
                         {"rpcap://two", "", {IPv6Entry(3), IPv6Entry(4)}},
                         {"rpcap://three", "", {}}}};
    testing::internal::CaptureStdout();
    devices_.Enumerate();
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
  }

  bool ResolveIPv4(const IPv4Address& target, int position = 0) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool result = resolver_.ResolveIPv4(target, mac_.data(), position);
    std::fflush(stdout);
    printed_ = testing::internal::GetCapturedStdout();
    debug_ = testing::internal::GetCapturedStderr();
    return result;
  }
  bool SolicitNeighbour(const IPv6Address& target, int position = 0) {
    return resolver_.SolicitNeighbour(target.data(), mac_.data(), position);
  }

  FakeDriver driver_;
  DeviceList devices_{driver_};
  FakeNeighbours neighbours_;
  AddressResolver resolver_{devices_, driver_, neighbours_};
  MacAddress mac_ = kUntouched;
  std::string printed_;
  std::string debug_;
};

TEST_F(AddressResolverTest, OwnAddressNeedsNoArp) {
  for (const IPv4Address own : {IPv4Address{10, 1, 0, 1}, IPv4Address{10, 2, 0, 1}}) {
    mac_ = kUntouched;
    EXPECT_TRUE(ResolveIPv4(own));
    EXPECT_EQ(mac_, kOwnMac);
  }
  EXPECT_THAT(neighbours_.asked, IsEmpty());
}

TEST_F(AddressResolverTest, NeighbourThatAnswers) {
  neighbours_.replies = {Found(kOtherMac)};
  EXPECT_TRUE(ResolveIPv4(kOnSubnet));
  EXPECT_EQ(mac_, kOtherMac);
  EXPECT_THAT(neighbours_.asked, ElementsAre(Pair(kOnSubnet, "one")));
  EXPECT_EQ(printed_ + debug_, "");
}

TEST_F(AddressResolverTest, SilentNeighbourOnTheSubnetIsToldOnce) {
  neighbours_.replies = {Failed(NeighbourResult::kBadNetName)};
  neighbours_.route = kGateway;  // not asked for
  EXPECT_FALSE(ResolveIPv4(kOnSubnet));
  EXPECT_EQ(mac_, kUntouched);
  EXPECT_EQ(debug_, "Error: SendArp failed with error: 67");
  EXPECT_EQ(printed_, " (ERROR_GEN_FAILURE)\n");
  EXPECT_THAT(neighbours_.routes_asked, IsEmpty());
}

TEST_F(AddressResolverTest, EveryResultHasItsExplanation) {
  const std::pair<int, const char*> rows[] = {
      {31, " (ERROR_GEN_FAILURE)\n"},
      {67, " (ERROR_GEN_FAILURE)\n"},
      {87, " (ERROR_INVALID_PARAMETER)\n"},
      {111, " (ERROR_BUFFER_OVERFLOW)\n"},
      {1168, " (ERROR_NOT_FOUND)\n"},
      {1784, " (ERROR_INVALID_USER_BUFFER)\n"},
      {5, "\n"},
  };
  for (const auto& [code, text] : rows) {
    neighbours_.replies = {Failed(static_cast<NeighbourResult>(code))};
    EXPECT_FALSE(ResolveIPv4(kOnSubnet));
    EXPECT_EQ(debug_, "Error: SendArp failed with error: " + std::to_string(code));
    EXPECT_EQ(printed_, text);
  }
}

TEST_F(AddressResolverTest, TargetOffTheSubnetHasItsGatewaysMac) {
  neighbours_.replies = {Failed(NeighbourResult::kBadNetName), Found(kOtherMac)};
  neighbours_.route = kGateway;
  EXPECT_TRUE(ResolveIPv4(kOffSubnet));
  EXPECT_EQ(mac_, kOtherMac);
  EXPECT_THAT(neighbours_.asked, ElementsAre(Pair(kOffSubnet, "one"), Pair(kGateway, "one")));
  EXPECT_THAT(neighbours_.routes_asked, ElementsAre(Pair(kOffSubnet, IPv4Address{10, 1, 0, 1})));
  EXPECT_EQ(neighbours_.route_interface, "one");
}

// Only the first address and netmask say what the device's own subnet is.
TEST_F(AddressResolverTest, SecondSubnetGoesThroughTheRoute) {
  neighbours_.replies = {Failed(NeighbourResult::kBadNetName), Found(kOtherMac)};
  neighbours_.route = kGateway;
  EXPECT_TRUE(ResolveIPv4({10, 2, 0, 9}));
}

TEST_F(AddressResolverTest, FailedGatewayClearsTheMac) {
  neighbours_.replies = {Failed(NeighbourResult::kBadNetName), Failed(NeighbourResult::kNotFound)};
  neighbours_.route = kGateway;
  EXPECT_FALSE(ResolveIPv4(kOffSubnet));
  EXPECT_EQ(mac_, MacAddress{});
  EXPECT_EQ(debug_, "Error: SendArp failed with error: 67Error: SendArp failed with error: 1168");
  EXPECT_EQ(printed_, " (ERROR_GEN_FAILURE)\n (ERROR_NOT_FOUND)\n");

  mac_ = kUntouched;
  neighbours_.replies = {Failed(NeighbourResult::kBadNetName), Empty()};
  EXPECT_FALSE(ResolveIPv4(kOffSubnet));
  EXPECT_EQ(mac_, MacAddress{});
  EXPECT_EQ(debug_, std::string("Error: SendArp failed with error: 67") + kEmptyReply);
}

TEST_F(AddressResolverTest, EmptyReplyGoesOnToTheGateway) {
  neighbours_.replies = {Empty(), Found(kOtherMac)};
  neighbours_.route = kGateway;
  EXPECT_TRUE(ResolveIPv4(kOffSubnet));
  EXPECT_EQ(mac_, kOtherMac);
  EXPECT_EQ(debug_, kEmptyReply);
  EXPECT_EQ(printed_, "");

  neighbours_.replies = {Empty()};
  EXPECT_FALSE(ResolveIPv4(kOnSubnet));
  EXPECT_EQ(mac_, kUnset);
}

TEST_F(AddressResolverTest, NoRouteOrNoDeviceMeansNoGateway) {
  neighbours_.replies = {Failed(NeighbourResult::kNotFound)};
  EXPECT_FALSE(ResolveIPv4(kOffSubnet));  // no route
  neighbours_.route = kGateway;
  for (const int position : {-1, 3}) {
    neighbours_.replies = {Failed(NeighbourResult::kNotFound)};
    EXPECT_FALSE(ResolveIPv4(kOffSubnet, position)) << position;
    EXPECT_EQ(neighbours_.asked.back(), std::pair(kOffSubnet, std::string()));
  }
  EXPECT_EQ(mac_, kUntouched);
}

TEST_F(AddressResolverTest, DeviceWithoutAddressAsksForAnySource) {
  neighbours_.replies = {Failed(NeighbourResult::kBadNetName), Found(kOtherMac)};
  neighbours_.route = kGateway;
  EXPECT_TRUE(ResolveIPv4(kOnSubnet, 2));
  EXPECT_THAT(neighbours_.routes_asked, ElementsAre(Pair(kOnSubnet, IPv4Address{})));
}

std::vector<std::uint8_t> Advertisement(const MacAddress& mac) {
  std::vector<std::uint8_t> frame(86);
  frame[54] = 136;
  std::copy(mac.begin(), mac.end(), frame.begin() + 80);
  return frame;
}

TEST_F(AddressResolverTest, SolicitationIsSentAndItsAnswerRead) {
  auto other_frame = Advertisement(kUnset);
  other_frame[54] = 135;
  driver_.QueueReceived(other_frame);
  driver_.QueueReceived(std::vector<std::uint8_t>(85, 136));
  driver_.QueueReceived({});
  driver_.QueueReceived(Advertisement(kOtherMac));
  EXPECT_TRUE(SolicitNeighbour(IPv6(0x99)));
  EXPECT_EQ(mac_, kOtherMac);

  ASSERT_EQ(driver_.Opened().size(), 1u);
  EXPECT_EQ(driver_.Opened()[0].name, "rpcap://one");
  EXPECT_EQ(driver_.Opened()[0].options.snapshot_length, 86);
  EXPECT_TRUE(driver_.Opened()[0].options.promiscuous);
  EXPECT_TRUE(driver_.Opened()[0].options.immediate);
  EXPECT_EQ(driver_.Opened()[0].options.read_timeout, std::chrono::milliseconds(1));
  EXPECT_THAT(driver_.Filters(),
              ElementsAre(Pair("icmp6 and ether dst host 02:00:00:00:00:01", 0xFFFFFFu)));
  const auto sent = driver_.Sent();
  ASSERT_EQ(sent.size(), 1u);
  const auto& frame = sent[0].bytes;
  ASSERT_EQ(frame.size(), 86u);
  EXPECT_TRUE(std::equal(kOwnMac.begin(), kOwnMac.end(), frame.begin() + 6));
  EXPECT_TRUE(std::equal(frame.begin() + 62, frame.begin() + 78, IPv6(0x99).begin()));
  EXPECT_EQ(driver_.OpenHandles(), 0);
}

TEST_F(AddressResolverTest, TenReadsAtMost) {
  for (int i = 0; i < 9; ++i) {
    driver_.QueueReceived({});
  }
  driver_.QueueReceived(Advertisement(kOtherMac));
  EXPECT_TRUE(SolicitNeighbour(IPv6(0x99)));

  for (int i = 0; i < 10; ++i) {
    driver_.QueueReceived({});
  }
  driver_.QueueReceived(Advertisement(kOtherMac));
  mac_ = kUntouched;
  EXPECT_FALSE(SolicitNeighbour(IPv6(0x99)));
  EXPECT_EQ(mac_, kUntouched);
  EXPECT_EQ(driver_.Reads(), 20u);
  EXPECT_EQ(driver_.OpenHandles(), 0);
}

TEST_F(AddressResolverTest, OwnIPv6AddressNeedsNoFrame) {
  EXPECT_TRUE(SolicitNeighbour(IPv6(1), 0));
  EXPECT_TRUE(SolicitNeighbour(IPv6(4), 1));  // also with several addresses
  EXPECT_EQ(mac_, kOwnMac);
  EXPECT_THAT(driver_.Opened(), IsEmpty());
}

TEST_F(AddressResolverTest, OnlyADeviceWithOneIPv6AddressAsks) {
  for (const int position : {1, 2, 3, -1}) {
    EXPECT_FALSE(SolicitNeighbour(IPv6(0x99), position)) << position;
  }
  EXPECT_FALSE(resolver_.SolicitNeighbour(nullptr, mac_.data(), 0));
  EXPECT_FALSE(resolver_.SolicitNeighbour(IPv6(0x99).data(), nullptr, 0));
  EXPECT_THAT(driver_.Opened(), IsEmpty());
}

TEST_F(AddressResolverTest, FailuresOfTheDriverEndTheSolicitation) {
  driver_.QueueReceived(Advertisement(kOtherMac));
  driver_.refuse_open = true;
  EXPECT_FALSE(SolicitNeighbour(IPv6(0x99)));
  driver_.refuse_open = false;
  for (const auto stage : {FilterResult::Stage::kCompile, FilterResult::Stage::kSet}) {
    driver_.filter_result = {stage, -1};
    EXPECT_FALSE(SolicitNeighbour(IPv6(0x99)));
  }
  EXPECT_THAT(driver_.Sent(), IsEmpty());
  driver_.filter_result = {};
  driver_.RefuseAfter(0);
  EXPECT_FALSE(SolicitNeighbour(IPv6(0x99)));
  EXPECT_EQ(driver_.Reads(), 0u);
  EXPECT_EQ(driver_.OpenHandles(), 0);
  driver_.AcceptAll();
  EXPECT_TRUE(SolicitNeighbour(IPv6(0x99)));
}

struct DottedCase {
  const char* text;
  bool result;
  std::array<std::uint8_t, 4> bytes;  // bytes that are not stored keep 9
};

TEST(DottedDecimal, Table) {
  const DottedCase cases[] = {
      {"10.1.2.3", true, {10, 1, 2, 3}},
      {"10.1.2.3.4", true, {10, 1, 2, 3}},
      {"255.255.255.255", true, {255, 255, 255, 255}},
      {"0.0.0.0", true, {0, 0, 0, 0}},
      {"10.1.2", false, {10, 1, 2, 9}},
      {"10.1.256.3", false, {10, 1, 9, 9}},
      {"10.-1.2.3", false, {10, 9, 9, 9}},
      {"4294967297.1.1.1", false, {9, 9, 9, 9}},
      {"a.b.c.d", true, {0, 0, 0, 0}},
      {"1x. 2.+3.04", true, {1, 2, 3, 4}},
      {"..1..2.3.4.", true, {1, 2, 3, 4}},
      {"", false, {9, 9, 9, 9}},
      {"...", false, {9, 9, 9, 9}},
      {"255.255.255.2559", true, {255, 255, 255, 255}},  // the 16th character is not read
      {"000001.00002.3.4", false, {1, 2, 3, 9}},         // nor is this fourth number
  };
  for (const DottedCase& row : cases) {
    std::array<std::uint8_t, 4> bytes{9, 9, 9, 9};
    EXPECT_EQ(ReadDottedDecimal(row.text, bytes.data()), row.result) << row.text;
    EXPECT_EQ(bytes, row.bytes) << row.text;
  }
}

}  // namespace
}  // namespace ipplayout
