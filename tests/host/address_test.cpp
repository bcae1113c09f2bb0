// SPDX-License-Identifier: MIT
#include "host/base/address.h"

#include <gtest/gtest.h>

#include "host/library/adapters.h"
#include "host/library/destination.h"

namespace ipplay {
namespace {

TEST(Address, Targets) {
  const auto v4 = ParseTarget("rtp://239.1.2.3:5004");
  ASSERT_TRUE(v4);
  EXPECT_TRUE(v4->rtp);
  EXPECT_FALSE(v4->address.is_v6);
  EXPECT_EQ(v4->port, 5004);
  EXPECT_EQ(FormatTarget(*v4), "rtp://239.1.2.3:5004");
  const auto v6 = ParseTarget("udp://[ff3e::8000:1]:5000");
  ASSERT_TRUE(v6);
  EXPECT_FALSE(v6->rtp);
  EXPECT_TRUE(v6->address.is_v6);
  EXPECT_EQ(FormatTarget(*v6), "udp://[ff3e::8000:1]:5000");
  for (const char* refused :
       {"", "239.1.1.1:5004", "http://239.1.1.1:80", "rtp://239.1.1.1",
        "rtp://239.1.1.1:", "rtp://239.1.1.1:65536", "rtp://239.1.1.256:5004", "udp://ff3e::1:5000",
        "udp://[239.1.1.1]:5000", "udp://[ff3e::1]5000", "udp://host:5000", "udp://1.2.3.4:5x"}) {
    EXPECT_FALSE(ParseTarget(refused)) << refused;
  }
}

TEST(Address, ZonesOfLinkLocalTargets) {
  const auto target = ParseTarget("udp://[fe80::1%eth0.5]:5000");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->address, *ParseIp("fe80::1"));
  EXPECT_EQ(target->zone, "eth0.5");
  EXPECT_EQ(FormatTarget(*target), "udp://[fe80::1%eth0.5]:5000");
  for (const char* refused :
       {"udp://[fe80::1%]:5000", "udp://[fd00::1%eth0]:5000", "udp://[fe80::1%a b]:5000",
        "udp://10.0.0.1%eth0:5000", "udp://[fe80::1%eth0:5000"}) {
    EXPECT_FALSE(ParseTarget(refused)) << refused;
  }
}

TEST(Address, Endpoints) {
  const auto plain = ParseEndpoint("239.1.2.3:5004");
  ASSERT_TRUE(plain);
  EXPECT_FALSE(plain->source);
  EXPECT_EQ(plain->address, *ParseIp("239.1.2.3"));
  EXPECT_EQ(plain->port, 5004);
  EXPECT_FALSE(ParseEndpoint("@239.1.2.3:5004")->source);
  const auto sourced = ParseEndpoint("[fd00::1]@[ff3e::1]:5000");
  ASSERT_TRUE(sourced);
  EXPECT_EQ(sourced->source, ParseIp("fd00::1"));
  EXPECT_EQ(sourced->address, *ParseIp("ff3e::1"));
  for (const char* refused : {"", "239.1.2.3", "x@239.1.2.3:1", "fd00::1@[ff3e::1]:1",
                              "10.0.0.1@[ff3e::1]:1", "ff3e::1:5000", "[239.1.2.3]:1"}) {
    EXPECT_FALSE(ParseEndpoint(refused)) << refused;
  }
  EXPECT_EQ(FormatTarget(*ParseTarget("rtp://@239.1.2.3:5004")), "rtp://239.1.2.3:5004");
  EXPECT_FALSE(ParseTarget("rtp://10.0.0.1@239.1.2.3:5004"));
}

TEST(Address, Macs) {
  EXPECT_EQ(ParseMac("02:00:5e:1F:00:01"), (MacAddress{2, 0, 0x5E, 0x1F, 0, 1}));
  EXPECT_EQ(ParseMac("02-00-5e-1f-00-01"), (MacAddress{2, 0, 0x5E, 0x1F, 0, 1}));
  for (const char* refused : {"", "02:00:5e:10:00", "02:00:5e:10:00:0g", "2:00:5e:10:00:01",
                              "02:00:5e:10:00:01:02", "02:00-5e:10:00:01", "+2:00:5e:10:00:01"}) {
    EXPECT_FALSE(ParseMac(refused)) << refused;
  }
}

Adapter TestAdapter(const std::string& name = "near") {
  Adapter adapter;
  adapter.name = name;
  adapter.mac = {2, 0, 0, 0, 0, 1};
  adapter.ipv4 = {*ParseIp("10.1.2.3"), *ParseIp("192.168.7.1")};
  adapter.ipv4_masks = {*ParseIp("255.255.0.0"), *ParseIp("255.255.255.254")};
  adapter.ipv6 = {*ParseIp("fe80::1"), *ParseIp("2001:db8::1")};
  return adapter;
}

TEST(Destination, FollowsFromTheAddress) {
  const struct {
    const char* address;
    const char* mac;  // null where a neighbour must be asked
  } cases[] = {
      {"239.129.2.3", "01:00:5e:01:02:03"},  // only 23 bits are mapped
      {"224.0.0.251", "01:00:5e:00:00:fb"},
      {"ff3e::8000:1", "33:33:80:00:00:01"},
      {"255.255.255.255", "ff:ff:ff:ff:ff:ff"},
      {"10.1.255.255", "ff:ff:ff:ff:ff:ff"},
      {"10.1.2.3", "02:00:00:00:00:01"},
      {"2001:db8::1", "02:00:00:00:00:01"},
      {"10.1.2.4", nullptr},
      {"10.2.255.255", nullptr},  // another subnet's
      {"192.168.7.0", nullptr},   // a subnet of two has no broadcast address
      {"2001:db8::2", nullptr},
  };
  for (const auto& c : cases) {
    const auto found = DestinationWithoutAsking(TestAdapter(), *ParseIp(c.address));
    ASSERT_EQ(found.has_value(), c.mac != nullptr) << c.address;
    if (found) {
      EXPECT_EQ(FormatMac(found->mac), c.mac) << c.address;
    }
  }
}

TEST(Adapters, AreFoundByNameThenNumber) {
  Adapter first = TestAdapter();
  Adapter second = TestAdapter("0");
  second.index = 1;
  const std::vector<Adapter> adapters{first, second};
  EXPECT_EQ(FindAdapter(adapters, "near")->index, 0U);
  EXPECT_EQ(FindAdapter(adapters, "1")->index, 1U);
  EXPECT_EQ(FindAdapter(adapters, "0")->index, 1U);
  const auto none = FindAdapter(adapters, "far");
  ASSERT_FALSE(none);
  EXPECT_EQ(none.Error().status, ExitStatus::kNoAccess);
  EXPECT_NE(none.Error().message.find("near, 0"), std::string::npos);
}

}  // namespace
}  // namespace ipplay
