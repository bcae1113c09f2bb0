#include "platform/address_text.h"

#include <gtest/gtest.h>

namespace ipplayout::platform {
namespace {

TEST(AddressText, BothWays) {
  EXPECT_EQ(IPv4Text({192, 0, 2, 1}), "192.0.2.1");
  EXPECT_EQ(ParseIPv4("192.0.2.1"), (IPv4Address{192, 0, 2, 1}));
  const IPv6Address address{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB, 0xCC};
  EXPECT_EQ(IPv6Text(address), "2001:db8::aa:bbcc");
  EXPECT_EQ(ParseIPv6("2001:db8::aa:bbcc"), address);
  EXPECT_EQ(ParseIPv6("2001:0DB8:0:0:0:0:AA:BBCC"), address);
  EXPECT_EQ(IPv6Text({}), "::");
}

TEST(AddressText, OnlyWholeAddressesParse) {
  for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.4 ", "::1"}) {
    EXPECT_FALSE(ParseIPv4(text)) << text;
  }
  for (const char* text : {"", "1::2::3", "fe80::1%1", "1.2.3.4", "12345::"}) {
    EXPECT_FALSE(ParseIPv6(text)) << text;
  }
}

}  // namespace
}  // namespace ipplayout::platform
