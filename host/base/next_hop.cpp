// SPDX-License-Identifier: MIT
#include "host/base/next_hop.h"

#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <span>

#include "host/base/file_descriptor.h"
#include "host/base/socket_address.h"
#include "host/base/socket_option.h"

namespace ipplay {
namespace {

using Handler = std::function<void(const nlmsghdr&)>;
using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t kRequestBytes = 256;
constexpr std::size_t kReceiveBytes = 32768;
constexpr std::size_t kAddressBytes = 16;
// The kernel gives up after three seconds unless it is configured otherwise.
constexpr std::chrono::seconds kLongestWait(4);
constexpr std::uint16_t kResolvedStates =
    NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_PROBE | NUD_STALE | NUD_DELAY;

int CallHandler(const nlmsghdr* message, void* context) {
  (*static_cast<const Handler*>(context))(*message);
  return MNL_CB_OK;
}

void* ContextOf(const Handler& handler) {
  return const_cast<Handler*>(&handler);  // CallHandler makes it const again
}

class Kernel {
 public:
  // Joins the notification groups of a mask of RTMGRP_ bits.
  explicit Kernel(unsigned groups) : socket_(::mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC)) {
    if (socket_ && ::mnl_socket_bind(socket_.get(), groups, MNL_SOCKET_AUTOPID) != 0) {
      socket_.reset();
    }
  }
  bool IsOpen() const { return socket_ != nullptr; }

  // False where the kernel refuses.
  bool Exchange(nlmsghdr& request, const Handler& handler) {
    request.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request.nlmsg_seq = ++sequence_;
    if (::mnl_socket_sendto(socket_.get(), &request, request.nlmsg_len) < 0) {
      return false;
    }
    int result = MNL_CB_OK;
    while (result == MNL_CB_OK) {
      const auto size = ::mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
      if (size < 0 && errno == EINTR) {
        continue;
      }
      result = size < 0 ? MNL_CB_ERROR
                        : ::mnl_cb_run(buffer_.data(), static_cast<std::size_t>(size), sequence_,
                                       ::mnl_socket_get_portid(socket_.get()), CallHandler,
                                       ContextOf(handler));
    }
    return result == MNL_CB_STOP;
  }

  // False when nothing came until `deadline`.
  bool Receive(SteadyClock::time_point deadline, const Handler& handler) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    pollfd wait{::mnl_socket_get_fd(socket_.get()), POLLIN, 0};
    if (left <= 0 || ::poll(&wait, 1, static_cast<int>(left)) <= 0) {
      return false;
    }
    const auto size = ::mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
    if (size > 0) {
      ::mnl_cb_run(buffer_.data(), static_cast<std::size_t>(size), 0, 0, CallHandler,
                   ContextOf(handler));
    }
    return true;
  }

 private:
  struct Close {
    void operator()(mnl_socket* socket) const { ::mnl_socket_close(socket); }
  };

  std::unique_ptr<mnl_socket, Close> socket_;
  unsigned sequence_ = 0;
  alignas(nlmsghdr) std::array<char, kReceiveBytes> buffer_{};
};

// The attribute of a message behind a family header of this size; empty where there is none.
std::span<const std::uint8_t> Attribute(const nlmsghdr& message, std::size_t header, int type) {
  const auto* attribute =
      static_cast<const nlattr*>(::mnl_nlmsg_get_payload_offset(&message, header));
  const auto* const end = static_cast<const char*>(::mnl_nlmsg_get_payload_tail(&message));
  while (
      ::mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)))) {
    if (::mnl_attr_get_type(attribute) == type) {
      return {static_cast<const std::uint8_t*>(::mnl_attr_get_payload(attribute)),
              ::mnl_attr_get_payload_len(attribute)};
    }
    attribute = ::mnl_attr_next(attribute);
  }
  return {};
}

struct Route {
  std::optional<IpAddress> router;
};

std::optional<Route> FindRoute(Kernel& kernel, const IpAddress& address, unsigned interface) {
  alignas(nlmsghdr) std::array<char, kRequestBytes> buffer{};
  nlmsghdr* const request = ::mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETROUTE;
  auto* const header = static_cast<rtmsg*>(::mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
  header->rtm_family = AF_INET6;
  header->rtm_dst_len = 8 * kAddressBytes;
  ::mnl_attr_put(request, RTA_DST, kAddressBytes, address.bytes.data());
  ::mnl_attr_put_u32(request, RTA_OIF, interface);
  Route route;
  bool is_there = false;
  const bool answered = kernel.Exchange(*request, [&](const nlmsghdr& message) {
    const auto output = Attribute(message, sizeof(rtmsg), RTA_OIF);
    unsigned through = 0;
    std::memcpy(&through, output.data(), std::min(output.size(), sizeof through));
    is_there = message.nlmsg_type == RTM_NEWROUTE && through == interface;
    if (const auto gateway = Attribute(message, sizeof(rtmsg), RTA_GATEWAY);
        gateway.size() == kAddressBytes) {
      route.router.emplace(IpAddress{.is_v6 = true});
      std::copy(gateway.begin(), gateway.end(), route.router->bytes.begin());
    }
  });
  return answered && is_there ? std::optional(route) : std::nullopt;
}

// What a message says of the neighbour.
struct Verdict {
  bool failed = false;
  std::optional<MacAddress> mac;
};

std::optional<Verdict> VerdictOf(const nlmsghdr& message, const IpAddress& neighbour,
                                 unsigned interface) {
  if (message.nlmsg_type != RTM_NEWNEIGH && message.nlmsg_type != RTM_DELNEIGH) {
    return std::nullopt;
  }
  const auto& header = *static_cast<const ndmsg*>(::mnl_nlmsg_get_payload(&message));
  const auto address = Attribute(message, sizeof(ndmsg), NDA_DST);
  if (header.ndm_family != AF_INET6 || header.ndm_ifindex != static_cast<int>(interface) ||
      !std::equal(address.begin(), address.end(), neighbour.bytes.begin(), neighbour.bytes.end())) {
    return std::nullopt;
  }
  if (message.nlmsg_type == RTM_DELNEIGH || (header.ndm_state & NUD_FAILED) != 0) {
    return Verdict{.failed = true, .mac = {}};
  }
  const auto link_layer = Attribute(message, sizeof(ndmsg), NDA_LLADDR);
  MacAddress mac{};
  if ((header.ndm_state & kResolvedStates) == 0 || link_layer.size() != mac.size()) {
    return std::nullopt;
  }
  std::copy(link_layer.begin(), link_layer.end(), mac.begin());
  return Verdict{.mac = mac};
}

std::optional<Verdict> LookUp(Kernel& kernel, const IpAddress& neighbour, unsigned interface) {
  alignas(nlmsghdr) std::array<char, kRequestBytes> buffer{};
  nlmsghdr* const request = ::mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETNEIGH;
  auto* const header = static_cast<ndmsg*>(::mnl_nlmsg_put_extra_header(request, sizeof(ndmsg)));
  header->ndm_family = AF_INET6;
  header->ndm_ifindex = static_cast<int>(interface);
  ::mnl_attr_put(request, NDA_DST, kAddressBytes, neighbour.bytes.data());
  std::optional<Verdict> verdict;
  kernel.Exchange(*request, [&](const nlmsghdr& message) {
    verdict = VerdictOf(message, neighbour, interface);
  });
  return verdict;
}

// An empty datagram makes the kernel look for who is to get it.
bool SendDatagram(const IpAddress& neighbour, unsigned interface) {
  constexpr std::uint16_t kDiscardPort = 9;
  const FileDescriptor sender(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const std::uint32_t index = htonl(interface);
  const SocketAddress receiver = ToSockaddr(neighbour, kDiscardPort, interface);
  return sender.IsOpen() && SetOption(sender.Get(), IPPROTO_IPV6, IPV6_UNICAST_IF, index) &&
         ::sendto(sender.Get(), nullptr, 0, MSG_DONTWAIT, receiver.Get(), receiver.length) == 0;
}

std::optional<MacAddress> Resolve(Kernel& kernel, const IpAddress& neighbour, unsigned interface) {
  // Joined before anything is looked at: what happens from here on is seen.
  Kernel notifications(RTMGRP_NEIGH);
  auto verdict = LookUp(kernel, neighbour, interface);
  if (verdict && verdict->mac) {
    return verdict->mac;
  }
  if (!notifications.IsOpen() || !SendDatagram(neighbour, interface)) {
    return std::nullopt;
  }
  const auto deadline = SteadyClock::now() + kLongestWait;
  verdict = LookUp(kernel, neighbour, interface);
  while (!verdict || verdict->failed) {
    verdict.reset();
    if (!notifications.Receive(deadline, [&](const nlmsghdr& message) {
          if (const auto more = VerdictOf(message, neighbour, interface)) {
            verdict = more;
          }
        })) {
      return std::nullopt;
    }
    if (verdict && verdict->failed) {
      return std::nullopt;
    }
  }
  return verdict->mac;
}

}  // namespace

std::optional<NextHop> FindNextHop(const IpAddress& address, const std::string& interface) {
  const unsigned index = ::if_nametoindex(interface.c_str());
  Kernel kernel(0);
  if (index == 0 || !kernel.IsOpen() || !address.is_v6) {
    return std::nullopt;
  }
  const auto route = FindRoute(kernel, address, index);
  if (!route) {
    return std::nullopt;
  }
  const auto mac = Resolve(kernel, route->router.value_or(address), index);
  return mac ? std::optional(NextHop{*mac, route->router}) : std::nullopt;
}

}  // namespace ipplay
