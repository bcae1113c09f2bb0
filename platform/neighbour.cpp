// SPDX-License-Identifier: MIT
#include "platform/neighbour.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/clock.h"
#include "platform/descriptor.h"
#include "platform/interface.h"
#include "platform/netlink.h"
#include "platform/route.h"

namespace ipplayout::platform {
namespace {

// The kernel gives up after three seconds unless it is configured otherwise.
constexpr std::chrono::seconds kLongestWait{5};

constexpr std::uint16_t kResolvedStates =
    NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_PROBE | NUD_STALE | NUD_DELAY;

struct Neighbour {
  Ipv4Address address;
  unsigned interface_index;
};

NeighbourReply Failure(NeighbourResult result) {
  NeighbourReply reply;
  reply.result = result;
  return reply;
}

NeighbourReply Done(std::span<const std::uint8_t> link_layer_address) {
  NeighbourReply reply;
  if (link_layer_address.size() > reply.address.size()) {
    return Failure(NeighbourResult::kBufferOverflow);
  }
  reply.result = NeighbourResult::kDone;
  reply.length = static_cast<std::uint32_t>(link_layer_address.size());
  std::copy(link_layer_address.begin(), link_layer_address.end(), reply.address.begin());
  return reply;
}

// What a neighbour message says about how the resolution ended; nothing while it goes on, or when
// the message is about another neighbour.
std::optional<NeighbourReply> Verdict(const nlmsghdr& message, const Neighbour& neighbour) {
  if (message.nlmsg_type != RTM_NEWNEIGH && message.nlmsg_type != RTM_DELNEIGH) {
    return std::nullopt;
  }
  const auto& header = NetlinkHeader<ndmsg>(message);
  const NetlinkAttributes attributes(message, sizeof(ndmsg));
  const auto address = attributes.Bytes(NDA_DST);
  if (header.ndm_family != AF_INET ||
      static_cast<unsigned>(header.ndm_ifindex) != neighbour.interface_index ||
      !std::equal(address.begin(), address.end(), neighbour.address.begin(),
                  neighbour.address.end())) {
    return std::nullopt;
  }
  if (message.nlmsg_type == RTM_DELNEIGH || (header.ndm_state & NUD_FAILED) != 0) {
    return Failure(NeighbourResult::kBadNetName);
  }
  if ((header.ndm_state & kResolvedStates) == 0) {
    return std::nullopt;
  }
  return Done(attributes.Bytes(NDA_LLADDR));
}

// Nothing when the kernel knows nothing of the neighbour, or does not know yet.
std::optional<NeighbourReply> LookUp(NetlinkSocket& kernel, const Neighbour& neighbour) {
  NetlinkRequest request(RTM_GETNEIGH, 0);
  auto& header = request.AddHeader<ndmsg>();
  header.ndm_family = AF_INET;
  header.ndm_ifindex = static_cast<int>(neighbour.interface_index);
  request.AddBytes(NDA_DST, neighbour.address);
  std::optional<NeighbourReply> verdict;
  const int error = kernel.Exchange(
      request, [&](const nlmsghdr& message) { verdict = Verdict(message, neighbour); });
  if (error != 0 && error != ENOENT) {
    return Failure(NeighbourResult::kGeneralFailure);
  }
  return verdict;
}

int AskToResolve(NetlinkSocket& kernel, const Neighbour& neighbour) {
  NetlinkRequest request(RTM_NEWNEIGH, NLM_F_CREATE);
  auto& header = request.AddHeader<ndmsg>();
  header.ndm_family = AF_INET;
  header.ndm_ifindex = static_cast<int>(neighbour.interface_index);
  header.ndm_flags = NTF_USE;
  request.AddBytes(NDA_DST, neighbour.address);
  return kernel.Exchange(request, [](const nlmsghdr&) {});
}

// An empty datagram to the discard port makes the kernel resolve its receiver.
bool SendDatagram(const Neighbour& neighbour) {
  const Descriptor sender =
      AboveStandard(Descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  const std::uint32_t index = htonl(neighbour.interface_index);
  if (!sender.IsOpen() ||
      ::setsockopt(sender.Get(), IPPROTO_IP, IP_UNICAST_IF, &index, sizeof index) != 0) {
    return false;
  }
  constexpr std::uint16_t kDiscardPort = 9;
  sockaddr_in receiver{};
  receiver.sin_family = AF_INET;
  receiver.sin_port = htons(kDiscardPort);
  std::memcpy(&receiver.sin_addr, neighbour.address.data(), neighbour.address.size());
  sockaddr address{};
  static_assert(sizeof address == sizeof receiver);
  std::memcpy(&address, &receiver, sizeof receiver);
  return ::sendto(sender.Get(), nullptr, 0, MSG_DONTWAIT, &address, sizeof address) == 0;
}

bool StartResolution(NetlinkSocket& kernel, const Neighbour& neighbour) {
  const int error = AskToResolve(kernel, neighbour);
  if (error == EPERM) {  // needs CAP_NET_ADMIN; sending does not
    return SendDatagram(neighbour);
  }
  return error == 0;
}

NeighbourReply AwaitVerdict(NetlinkSocket& kernel, NetlinkSocket& notifications,
                            const Neighbour& neighbour) {
  const auto deadline = MonotonicNow() + kLongestWait;
  std::optional<NeighbourReply> verdict = LookUp(kernel, neighbour);
  while (!verdict) {
    const auto received = notifications.Receive(deadline, [&](const nlmsghdr& message) {
      if (!verdict) {
        verdict = Verdict(message, neighbour);
      }
    });
    if (received == NetlinkSocket::Received::kOverrun) {
      verdict = LookUp(kernel, neighbour);
    } else if (received != NetlinkSocket::Received::kMessages) {
      return Failure(NeighbourResult::kBadNetName);
    }
  }
  return *verdict;
}

NeighbourReply Resolve(const Neighbour& neighbour) {
  NetlinkSocket kernel(0);
  // Joined before anything is looked at: what happens from here on is seen.
  NetlinkSocket notifications(RTMGRP_NEIGH);
  if (!kernel.IsOpen() || !notifications.IsOpen()) {
    return Failure(NeighbourResult::kGeneralFailure);
  }
  const auto known = LookUp(kernel, neighbour);
  // Only what is known to be unknown is asked for: the request replaces the entry.
  if (known && known->result != NeighbourResult::kBadNetName) {
    return *known;
  }
  if (!StartResolution(kernel, neighbour)) {
    return Failure(NeighbourResult::kBadNetName);
  }
  return AwaitVerdict(kernel, notifications, neighbour);
}

bool IsMulticast(const Ipv4Address& address) {
  return (address[0] & 0xF0) == 0xE0;
}

// "This network" (RFC 1122, 3.2.1.3) and class E (RFC 1112, 4), without the limited broadcast.
bool CannotBeNeighbour(const Ipv4Address& address) {
  return address[0] == 0 || (address[0] >= 240 && address != Ipv4Address{255, 255, 255, 255});
}

NeighbourReply OverRoute(const Ipv4Address& target, const Route& route) {
  int error = 0;
  const auto interface = QueryInterface(InterfaceName(route.interface_index), error);
  if (!interface) {
    return Failure(NeighbourResult::kNotFound);
  }
  if (route.kind == Route::Kind::kOwnAddress) {
    return interface->ethernet_framed ? Done(interface->mac) : Done({});
  }
  if (!route.on_link) {
    return Failure(NeighbourResult::kBadNetName);
  }
  return interface->without_neighbours ? Done({}) : Resolve({target, route.interface_index});
}

class KernelNeighbours final : public NeighbourService {
 public:
  NeighbourReply ResolveNeighbour(const Ipv4Address& target,
                                  const std::string& interface) override {
    constexpr MacAddress kBroadcast{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    if (CannotBeNeighbour(target)) {
      return Failure(NeighbourResult::kInvalidParameter);
    }
    if (IsMulticast(target)) {
      const auto low = static_cast<std::uint8_t>(target[1] & 0x7F);
      return Done(MacAddress{0x01, 0x00, 0x5E, low, target[2], target[3]});
    }
    if (target == Ipv4Address{255, 255, 255, 255}) {
      return Done(kBroadcast);
    }
    const auto route = FindRoute(target, Ipv4Address{}, interface);
    if (!route) {
      return Failure(NeighbourResult::kNotFound);
    }
    return route->kind == Route::Kind::kBroadcast ? Done(kBroadcast) : OverRoute(target, *route);
  }

  std::optional<Ipv4Address> BestRoute(const Ipv4Address& target, const Ipv4Address& source,
                                       const std::string& interface) override {
    const auto route = FindRoute(target, source, interface);
    if (!route) {
      return std::nullopt;
    }
    return route->on_link ? Ipv4Address{} : route->gateway;
  }
};

}  // namespace

NeighbourService& SystemNeighbours() {
  static KernelNeighbours neighbours;
  return neighbours;
}

}  // namespace ipplayout::platform
