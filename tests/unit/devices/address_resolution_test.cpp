// SPDX-License-Identifier: MIT
// What real neighbours and adapters do not do on request: every result code, empty replies,
// adapters that refuse, answers that come late. The rest is tested on the wire.
#include "devices/address_resolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/fake_driver.h"

namespace ipplayout {
namespace {

using platform::Ipv4Address;
using platform::NeighbourReply;
using platform::NeighbourResult;

constexpr MacAddress kOtherMac{0x02, 0, 0, 0, 0, 0x02};
constexpr MacAddress kUnset{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr MacAddress kUntouched{9, 9, 9, 9, 9, 9};
constexpr Ipv4Address kOnSubnet{10, 1, 0, 77};
constexpr Ipv4Address kOffSubnet{192, 0, 2, 1};

NeighbourReply Failed(int code) {
  return {static_cast<NeighbourResult>(code), 0, kUnset};
}
NeighbourReply Found(std::uint32_t length) {
  return {NeighbourResult::kDone, length, length == 0 ? kUnset : kOtherMac};
}

struct FakeNeighbours final : platform::NeighbourService {
  NeighbourReply ResolveNeighbour(const Ipv4Address& /*target*/,
                                  const std::string& /*interface*/) override {
    NeighbourReply reply = replies.front();
    replies.pop_front();
    return reply;
  }
  std::optional<Ipv4Address> BestRoute(const Ipv4Address& /*target*/, const Ipv4Address& source,
                                       const std::string& /*interface*/) override {
    source_asked = source;
    return Ipv4Address{10, 1, 0, 254};
  }

  std::deque<NeighbourReply> replies;
  std::optional<Ipv4Address> source_asked;
};

class AddressResolverTest : public testing::Test {
 protected:
  // Position 0 is 10.1.0.1/16 and 2001:db8::1, position 1 has no address.
  AddressResolverTest() {
    const AdapterAddress own{AddressFamily::kIPv4, {10, 1, 0, 1}, 0};
    const AdapterAddress netmask{AddressFamily::kIPv4, {255, 255}, 0};
    const AdapterAddress ipv6{AddressFamily::kIPv6, {0x20, 0x01, 0x0D, 0xB8}, 0};
    driver_.adapters = {
        {{"rpcap://one", "", {{own, netmask}, {ipv6, {}}}}, {"rpcap://two", "", {}}}};
    testing::internal::CaptureStdout();
    devices_.Enumerate();
    testing::internal::GetCapturedStdout();
  }

  // What was printed and what went to the debugger, behind the result.
  std::pair<bool, std::string> ResolveIPv4(const Ipv4Address& target, int position = 0) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool result = resolver_.ResolveIPv4(target, mac_.data(), position);
    const std::string printed = testing::internal::GetCapturedStdout();
    return {result, printed + testing::internal::GetCapturedStderr()};
  }
  // The reply comes after this many reads without one.
  bool SolicitNeighbour(int empty_reads) {
    for (int i = 0; i < empty_reads; ++i) {
      driver_.QueueReceived({});
    }
    driver_.QueueReceived(advertisement_);
    const platform::Ipv6Address target{0x20, 0x01, 0x0D, 0xB8, 0x99};
    return resolver_.SolicitNeighbour(target.data(), mac_.data(), 0);
  }

  // Of 2001:db8:9900::, from itself to 2001:db8::1, with an option of 8 bytes (RFC 4861, 4.4).
  static std::vector<std::uint8_t> Advertisement() {
    std::vector<std::uint8_t> frame(86);
    for (const std::ptrdiff_t address : {22, 38, 62}) {
      std::ranges::copy(std::initializer_list<int>{0x20, 0x01, 0x0D, 0xB8},
                        frame.begin() + address);
    }
    frame[26] = frame[66] = 0x99;
    frame[53] = 1;
    frame[19] = 32;
    frame[20] = 58;
    frame[21] = 255;
    frame[54] = 136;
    frame[78] = 2;
    frame[79] = 1;
    std::copy(kOtherMac.begin(), kOtherMac.end(), frame.begin() + 80);
    std::uint32_t sum = 32 + 58;
    for (std::size_t i = 22; i < frame.size(); i += 2) {
      sum += static_cast<std::uint32_t>(frame[i] << 8 | frame[i + 1]);
    }
    sum = 0xFFFF - (sum % 0xFFFF);
    frame[56] = static_cast<std::uint8_t>(sum >> 8);
    frame[57] = static_cast<std::uint8_t>(sum);
    return frame;
  }

  std::vector<std::uint8_t> advertisement_ = Advertisement();
  FakeDriver driver_;
  DeviceList devices_{driver_};
  FakeNeighbours neighbours_;
  AddressResolver resolver_{devices_, driver_, neighbours_};
  MacAddress mac_ = kUntouched;
};

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
    neighbours_.replies = {Failed(code)};
    const std::string report = "Error: SendArp failed with error: " + std::to_string(code);
    EXPECT_EQ(ResolveIPv4(kOnSubnet), std::pair(false, text + report));
  }
  EXPECT_EQ(mac_, kUntouched);
  EXPECT_FALSE(neighbours_.source_asked);  // no gateway for a neighbour
}

TEST_F(AddressResolverTest, GatewaysAreAskedForAndMayFailToo) {
  const struct {
    Ipv4Address target;
    int position;
    std::deque<NeighbourReply> replies;
    bool result;
    MacAddress mac;
  } cases[] = {
      {kOffSubnet, 0, {Failed(67), Found(6)}, true, kOtherMac},
      {kOffSubnet, 0, {Found(0), Found(6)}, true, kOtherMac},
      {kOffSubnet, 0, {Failed(67), Failed(1168)}, false, {}},
      {kOffSubnet, 0, {Failed(67), Found(0)}, false, {}},
      {kOnSubnet, 0, {Found(0)}, false, kUnset},
      {kOnSubnet, 1, {Failed(67), Found(6)}, true, kOtherMac},
      {kOffSubnet, -1, {Failed(67)}, false, kUntouched},
      {kOffSubnet, 2, {Failed(67)}, false, kUntouched},
  };
  for (const auto& [target, position, replies, result, mac] : cases) {
    mac_ = kUntouched;
    neighbours_.replies = replies;
    EXPECT_EQ(ResolveIPv4(target, position).first, result);
    EXPECT_EQ(mac_, mac);
    EXPECT_TRUE(neighbours_.replies.empty());
    if (result) {
      EXPECT_EQ(neighbours_.source_asked,
                position == 0 ? Ipv4Address({10, 1, 0, 1}) : Ipv4Address());
    }
  }
}

TEST_F(AddressResolverTest, TenReadsAtMost) {
  EXPECT_TRUE(SolicitNeighbour(9));
  EXPECT_EQ(mac_, kOtherMac);
  mac_ = kUntouched;
  EXPECT_FALSE(SolicitNeighbour(10));
  EXPECT_EQ(mac_, kUntouched);
  EXPECT_EQ(driver_.Reads(), 20U);
  EXPECT_EQ(driver_.OpenHandles(), 0);
}

TEST_F(AddressResolverTest, OnlyTheNeighbourThatWasAskedAnswers) {
  const struct {
    const char* what;
    std::vector<std::pair<std::size_t, std::uint8_t>> changes;
    bool answers;
  } cases[] = {
      {"a router's, from beyond the link", {{21, 254}}, false},
      // The checksum is right again by the other change.
      {"of another address", {{77, 1}, {65, 0xB7}}, false},
      {"damaged", {{85, 0x03}}, false},
      {"a solicitation", {{54, 135}, {58, 1}}, false},
      {"without an option", {{19, 24}}, false},
      {"no ICMPv6", {{20, 17}}, false},
      {"with more options than were captured", {{19, 40}}, true},
  };
  for (const auto& [what, changes, answers] : cases) {
    advertisement_ = Advertisement();
    for (const auto& [offset, value] : changes) {
      advertisement_[offset] = value;
    }
    EXPECT_EQ(SolicitNeighbour(0), answers) << what;
  }
}

TEST_F(AddressResolverTest, FailuresOfTheDriverEndTheSolicitation) {
  driver_.refuse_open = true;
  EXPECT_FALSE(SolicitNeighbour(0));
  driver_.refuse_open = false;
  driver_.filter_result = {FilterResult::Stage::kCompile, -1};
  EXPECT_FALSE(SolicitNeighbour(0));
  EXPECT_TRUE(driver_.Sent().empty());
  driver_.filter_result = {};
  driver_.RefuseAfter(0);
  EXPECT_FALSE(SolicitNeighbour(0));
  EXPECT_EQ(driver_.Reads(), 0U);
  EXPECT_EQ(driver_.OpenHandles(), 0);
  driver_.AcceptAll();
  EXPECT_TRUE(SolicitNeighbour(0));
}

}  // namespace
}  // namespace ipplayout
