// SPDX-License-Identifier: MIT
// Networks that a test makes for itself. Needs root.
#pragma once

#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "platform/descriptor.h"

namespace ipplayout {

// In the namespace of the caller, which is the test's own.
inline bool Shell(const char* command) {
  return std::system(command) == 0;
}

// Runs `test` in a network namespace of its own, in which what is sent on the adapter "near"
// (10.9.0.1/24) arrives at "far", and loopback is up.
inline void InOwnNetwork(const std::function<void()>& test) {
  std::thread([&] {
    // Neighbour and router discovery would add frames that no test has asked for.
    constexpr char kNetwork[] =
        "if [ -d /proc/sys/net/ipv6 ]; then"
        " echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6; fi; "
        "ip link set lo up && ip link add near type veth peer name far && "
        "ip address add 10.9.0.1/24 dev near && ip link set far up && ip link set near up";
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << "needs root";
    ASSERT_TRUE(Shell(kNetwork));
    test();
  }).join();
}

// Frames that arrive at an interface of the caller's namespace from now on.
class Arrivals {
 public:
  explicit Arrivals(const char* interface, int buffer_bytes = 64 << 20)
      : socket_(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
    ::setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes, sizeof buffer_bytes);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(::if_nametoindex(interface));
    bound_ = ::bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }

  bool IsBound() const { return bound_; }
  // Waits for the next frame that another interface sent here.
  std::vector<std::uint8_t> Next() {
    for (;;) {
      std::vector<std::uint8_t> frame(1 << 16);
      sockaddr_ll from{};
      socklen_t size = sizeof from;
      const ssize_t length = ::recvfrom(socket_.Get(), frame.data(), frame.size(), 0,
                                        reinterpret_cast<sockaddr*>(&from), &size);
      if (length < 0) {
        return {};
      }
      if (from.sll_pkttype != PACKET_OUTGOING) {
        frame.resize(static_cast<std::size_t>(length));
        return frame;
      }
    }
  }

 private:
  platform::Descriptor socket_;
  bool bound_ = false;
};

}  // namespace ipplayout
