#include "platform/neighbour.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include "tests/support/test_network.h"

namespace ipplayout {
namespace {

using platform::IPv4Address;
using platform::NeighbourReply;
using platform::NeighbourResult;
using platform::SystemNeighbours;

constexpr IPv4Address kNear{10, 77, 0, 1};
constexpr IPv4Address kFar{10, 77, 0, 2};
constexpr IPv4Address kSilent{10, 77, 0, 9};
constexpr IPv4Address kElsewhere{192, 0, 2, 1};

// near0 is 10.77.0.1/24, far0 10.77.0.2/24. The kernel gives a silent neighbour up soon.
class NeighbourTest : public testing::Test {
 protected:
  NeighbourTest() {
    network_.near.Run("ip address add 10.77.0.1/24 dev near0");
    network_.far.Run("ip address add 10.77.0.2/24 dev far0");
    network_.near.SetSysctl("net/ipv4/neigh/near0/mcast_solicit", "1");
    network_.near.SetSysctl("net/ipv4/neigh/near0/retrans_time_ms", "100");
  }

  NeighbourReply Resolve(const IPv4Address& target, const std::string& interface = "near0") {
    const NetworkNamespace::Visit visit(network_.near);
    return SystemNeighbours().ResolveNeighbour(target, interface);
  }
  std::optional<IPv4Address> BestRoute(const IPv4Address& target, const IPv4Address& source = {},
                                       const std::string& interface = "near0") {
    const NetworkNamespace::Visit visit(network_.near);
    return SystemNeighbours().BestRoute(target, source, interface);
  }
  void ExpectFound(const NeighbourReply& reply, const MacAddress& mac) {
    EXPECT_EQ(reply.result, NeighbourResult::kDone);
    EXPECT_EQ(reply.length, 6u);
    EXPECT_EQ(reply.address, mac);
  }

  TestNetwork network_;
};

TEST_F(NeighbourTest, AnswersAreFoundAndRemembered) {
  FrameTap far(network_.far, "far0");
  ExpectFound(Resolve(kFar), TestNetwork::kFarMac);
  EXPECT_EQ(far.Drain().size(), 1u);  // one ARP request
  ExpectFound(Resolve(kFar), TestNetwork::kFarMac);
  ExpectFound(Resolve(kFar, ""), TestNetwork::kFarMac);
  ExpectFound(Resolve(kFar, "missing0"), TestNetwork::kFarMac);
  EXPECT_TRUE(far.Drain().empty());
}

TEST_F(NeighbourTest, SilenceEndsWithTheKernelsVerdict) {
  FrameTap far(network_.far, "far0");
  EXPECT_EQ(Resolve(kSilent).result, NeighbourResult::kBadNetName);
  EXPECT_EQ(far.Drain().size(), 1u);
  // Asked again, it is looked for again.
  EXPECT_EQ(Resolve(kSilent).result, NeighbourResult::kBadNetName);
  EXPECT_EQ(far.Drain().size(), 1u);
  network_.far.Run("ip address add 10.77.0.9/24 dev far0");
  ExpectFound(Resolve(kSilent), TestNetwork::kFarMac);
}

// Without CAP_NET_ADMIN an empty datagram makes the kernel look.
TEST_F(NeighbourTest, UnprivilegedProcessFindsNeighboursToo) {
  FrameTap far(network_.far, "far0");
  const pid_t child = fork();
  if (child == 0) {
    const NetworkNamespace::Visit visit(network_.near);
    const bool dropped = setgid(65534) == 0 && setuid(65534) == 0;
    const NeighbourReply found = SystemNeighbours().ResolveNeighbour(kFar, "near0");
    const NeighbourReply silent = SystemNeighbours().ResolveNeighbour(kSilent, "near0");
    _exit(dropped && found.result == NeighbourResult::kDone && found.length == 6 &&
                  found.address == TestNetwork::kFarMac &&
                  silent.result == NeighbourResult::kBadNetName
              ? 0
              : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  const auto frames = far.Drain();
  const bool datagram = std::any_of(frames.begin(), frames.end(), [](const TappedFrame& frame) {
    // IPv4, UDP, port 9, length 8
    return frame.bytes.size() >= 42 && frame.bytes[12] == 0x08 && frame.bytes[13] == 0x00 &&
           frame.bytes[23] == 17 && frame.bytes[37] == 9 && frame.bytes[39] == 8;
  });
  EXPECT_TRUE(datagram);
}

TEST_F(NeighbourTest, TargetsThatAreNoNeighbours) {
  EXPECT_EQ(Resolve({0, 0, 0, 0}).result, NeighbourResult::kInvalidParameter);
  EXPECT_EQ(Resolve({0, 1, 2, 3}).result, NeighbourResult::kInvalidParameter);
  EXPECT_EQ(Resolve({240, 0, 0, 1}).result, NeighbourResult::kInvalidParameter);
  EXPECT_EQ(Resolve(kElsewhere).result, NeighbourResult::kNotFound);  // no route
  network_.near.Run("ip route add unreachable 192.0.2.0/24");
  EXPECT_EQ(Resolve(kElsewhere).result, NeighbourResult::kNotFound);
  network_.near.Run("ip route add 198.51.100.0/24 via 10.77.0.2");
  EXPECT_EQ(Resolve({198, 51, 100, 1}).result, NeighbourResult::kBadNetName);
}

TEST_F(NeighbourTest, AddressesThatNeedNoArp) {
  FrameTap far(network_.far, "far0");
  NetworkNamespace other;
  MakeVeth({network_.near, "near1", {2, 0, 0, 0, 0, 3}}, {other, "other0", {2, 0, 0, 0, 0, 4}});
  network_.near.Run("ip address add 10.77.0.3/24 dev near1");
  ExpectFound(Resolve(kNear), TestNetwork::kNearMac);
  ExpectFound(Resolve({10, 77, 0, 3}), {2, 0, 0, 0, 0, 3});  // own, on another adapter
  ExpectFound(Resolve({127, 0, 0, 1}), MacAddress{});
  ExpectFound(Resolve({239, 129, 2, 3}), {0x01, 0x00, 0x5E, 0x01, 0x02, 0x03});
  ExpectFound(Resolve({255, 255, 255, 255}), {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  ExpectFound(Resolve({10, 77, 0, 255}), {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_TRUE(far.Drain().empty());
}

TEST_F(NeighbourTest, PointToPointLinksHaveNoAddresses) {
  network_.near.Run(
      "ip tuntap add mode tun name tun0 && ip link set tun0 up && "
      "ip route add 198.51.100.0/24 dev tun0");
  const NeighbourReply reply = Resolve({198, 51, 100, 1});
  EXPECT_EQ(reply.result, NeighbourResult::kDone);
  EXPECT_EQ(reply.length, 0u);
}

// The same subnet behind two adapters: the one that the playout uses decides.
TEST_F(NeighbourTest, AdapterDecidesWhereToLook) {
  NetworkNamespace other;
  const MacAddress other_mac{2, 0, 0, 0, 0, 4};
  MakeVeth({network_.near, "near1", {2, 0, 0, 0, 0, 3}}, {other, "other0", other_mac});
  network_.near.Run("ip address add 10.77.0.3/24 dev near1");
  other.Run("ip address add 10.77.0.2/24 dev other0");
  ExpectFound(Resolve(kFar, "near1"), other_mac);
  ExpectFound(Resolve(kFar, "near0"), TestNetwork::kFarMac);

  network_.near.Run("ip route add default via 10.77.0.2 dev near0 metric 10");
  network_.near.Run("ip route add default via 10.77.0.4 dev near1 metric 20");
  EXPECT_EQ(BestRoute(kElsewhere, {}, "near1"), (IPv4Address{10, 77, 0, 4}));
  EXPECT_EQ(BestRoute(kElsewhere, {}, "near0"), kFar);
  EXPECT_EQ(BestRoute(kElsewhere, {}, ""), kFar);
}

TEST_F(NeighbourTest, BestRoute) {
  EXPECT_EQ(BestRoute(kElsewhere), std::nullopt);
  EXPECT_EQ(BestRoute(kSilent), IPv4Address{});  // on the link
  network_.near.Run("ip route add default via 10.77.0.2");
  EXPECT_EQ(BestRoute(kElsewhere), kFar);
  EXPECT_EQ(BestRoute(kElsewhere, kNear), kFar);
  EXPECT_EQ(BestRoute(kElsewhere, kFar), std::nullopt);  // not one of this machine's addresses
}

}  // namespace
}  // namespace ipplayout
