#include "transmit/neighbour_solicitation.h"

#include <gtest/gtest.h>

#include <vector>

namespace ipplayout {
namespace {

using platform::IPv6Address;

constexpr MacAddress kMac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr IPv6Address kTarget{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB, 0xCC};

IPv6Address SourceEndingIn(std::uint8_t high, std::uint8_t low) {
  return {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, high, low};
}

// Worked out by hand: the 36 words of pseudo-header and message add up to 0x4C356, folded 0xC35A,
// complement 0x3CA5.
constexpr SolicitationFrame kExpected{
    0x33, 0x33, 0xFF, 0xAA, 0xBB, 0xCC, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x86, 0xDD,  // Ethernet
    0x60, 0x00, 0x00, 0x00, 0x00, 0x20, 0x3A, 0xFF,                                      // IPv6
    0x20, 0x01, 0x0D, 0xB8, 0x00, 0x00, 0x00, 0x00,                                      // source
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,                                      //
    0xFF, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // destination
    0x00, 0x00, 0x00, 0x01, 0xFF, 0xAA, 0xBB, 0xCC,  //
    0x87, 0x00, 0x3C, 0xA5, 0x00, 0x00, 0x00, 0x00,  // ICMPv6
    0x20, 0x01, 0x0D, 0xB8, 0x00, 0x00, 0x00, 0x00,  // target
    0x00, 0x00, 0x00, 0x00, 0x00, 0xAA, 0xBB, 0xCC,  //
    0x01, 0x01, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // option
};

TEST(NeighbourSolicitation, EveryByte) {
  EXPECT_EQ(BuildSolicitation(kMac, SourceEndingIn(0x00, 0x01), kTarget), kExpected);
}

// From a source that ends in 3CA6 instead of 0001 the sum is 0xFFFF, whose complement is no sum.
TEST(NeighbourSolicitation, ChecksumOfZeroIsSentAsOnes) {
  const auto frame = BuildSolicitation(kMac, SourceEndingIn(0x3C, 0xA6), kTarget);
  EXPECT_EQ(frame[56], 0xFF);
  EXPECT_EQ(frame[57], 0xFF);
}

TEST(NeighbourSolicitation, AdvertisementsAreReadAtFixedPlaces) {
  std::vector<std::uint8_t> frame(kExpected.begin(), kExpected.end());
  EXPECT_EQ(ReadAdvertisement(frame), std::nullopt);  // a solicitation
  frame[54] = 136;
  EXPECT_EQ(ReadAdvertisement(frame), kMac);
  frame.push_back(0);
  EXPECT_EQ(ReadAdvertisement(frame), kMac);
  frame.resize(85);
  EXPECT_EQ(ReadAdvertisement(frame), std::nullopt);
}

}  // namespace
}  // namespace ipplayout
