// SPDX-License-Identifier: MIT
#include "driver/udp_socket.h"

#include <netinet/in.h>
// Behind the C library's header, which it goes along with.
#include <linux/filter.h>
#include <linux/in6.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/interface.h"

namespace ipplayout {
namespace {

using platform::Descriptor;

constexpr std::uint32_t kFlowLabelMask = 0xFFFFF;

// Takes the steps that a socket needs, and none after one that failed.
class UdpSocketOpener {
 public:
  UdpSocketOpener(const UdpSocketSettings& settings, const char*& step)
      : settings_(settings),
        step_(step),
        ipv6_(std::holds_alternative<platform::Ipv6Address>(settings.destination)) {}

  Descriptor Open() {
    const bool ready = Find() && Create() && SetCommonOptions() &&
                       (ipv6_ ? SetIpv6Options() : SetIpv4Options()) && SetInterface() && Bind() &&
                       LeaseFlowLabel() && Connect() && SendsToAnother();
    const int error = errno;
    if (!ready) {
      socket_ = Descriptor();
      errno = error;
    }
    return std::move(socket_);
  }

 private:
  bool Fail(const char* step, int error) {
    step_ = step;
    errno = error;
    return false;
  }
  template <typename T>
  bool Set(int level, int option, const T& value, const char* step) {
    return ::setsockopt(socket_.Get(), level, option, &value, sizeof value) == 0 ||
           Fail(step, errno);
  }

  bool Find() {
    if (settings_.source && settings_.source->index() != settings_.destination.index()) {
      return Fail("use a source address of another kind than the destination's", EAFNOSUPPORT);
    }
    if (settings_.destination_port == 0) {
      return Fail("send to port 0", EINVAL);
    }
    if (!settings_.interface.empty()) {
      interface_index_ = static_cast<int>(platform::InterfaceIndex(settings_.interface));
      return interface_index_ != 0 || Fail("find the adapter", ENODEV);
    }
    return true;
  }

  bool Create() {
    socket_ = platform::AboveStandard(Descriptor(::socket(
        ipv6_ ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP)));
    return socket_.IsOpen() || Fail("open a UDP socket", errno);
  }

  // What is received is dropped: it would take the room of departure stamps.
  bool SetCommonOptions() {
    sock_filter drop = BPF_STMT(BPF_RET | BPF_K, 0);
    const sock_fprog program{1, &drop};
    return Set(SOL_SOCKET, SO_ATTACH_FILTER, program, "keep the socket from receiving") &&
           Set(SOL_SOCKET, SO_BROADCAST, 1, "allow broadcast") &&
           Set(SOL_SOCKET, SO_REUSEADDR, settings_.share_source_port ? 1 : 0,
               "share the source port");
  }

  // Only with the queue of errors does the socket report frames that a queueing discipline drops.
  bool SetIpv4Options() {
    const int hop_limit = settings_.hop_limit;
    const bool multicast = IN_MULTICAST(IPv4Number());
    return Set(SOL_IP, IP_RECVERR, 1, "have errors reported") &&
           Set(SOL_IP, IP_MTU_DISCOVER,
               settings_.dont_fragment ? IP_PMTUDISC_PROBE : IP_PMTUDISC_DONT,
               "choose whether to fragment") &&
           Set(SOL_IP, multicast ? IP_MULTICAST_TTL : IP_TTL, hop_limit, "set the time to live") &&
           Set(SOL_IP, IP_TOS, int{settings_.traffic_class}, "set the type of service") &&
           Set(SOL_IP, IP_MULTICAST_LOOP, settings_.multicast_loop ? 1 : 0,
               "choose whether multicast reaches this machine");
  }

  bool SetIpv6Options() {
    const int hop_limit = settings_.hop_limit;
    const auto& address = std::get<platform::Ipv6Address>(settings_.destination);
    const bool multicast = address[0] == 0xFF;
    return Set(SOL_IPV6, IPV6_V6ONLY, 1, "leave out IPv4") &&
           Set(SOL_IPV6, IPV6_RECVERR, 1, "have errors reported") &&
           Set(SOL_IPV6, IPV6_MTU_DISCOVER,
               settings_.dont_fragment ? IPV6_PMTUDISC_PROBE : IPV6_PMTUDISC_DONT,
               "choose whether to fragment") &&
           Set(SOL_IPV6, IPV6_DONTFRAG, settings_.dont_fragment ? 1 : 0,
               "choose whether to fragment") &&
           Set(SOL_IPV6, multicast ? IPV6_MULTICAST_HOPS : IPV6_UNICAST_HOPS, hop_limit,
               "set the hop limit") &&
           Set(SOL_IPV6, IPV6_TCLASS, int{settings_.traffic_class}, "set the traffic class") &&
           Set(SOL_IPV6, IPV6_AUTOFLOWLABEL, 0, "choose the flow label") &&
           Set(SOL_IPV6, IPV6_MULTICAST_LOOP, settings_.multicast_loop ? 1 : 0,
               "choose whether multicast reaches this machine");
  }

  bool SetInterface() {
    if (interface_index_ == 0) {
      return true;
    }
    const int index_in_network_order =
        static_cast<int>(htonl(static_cast<std::uint32_t>(interface_index_)));
    if (ipv6_) {
      return Set(SOL_IPV6, IPV6_MULTICAST_IF, interface_index_, "choose the adapter") &&
             Set(SOL_IPV6, IPV6_UNICAST_IF, index_in_network_order, "choose the adapter");
    }
    ip_mreqn multicast{};
    multicast.imr_ifindex = interface_index_;
    return Set(SOL_IP, IP_MULTICAST_IF, multicast, "choose the adapter") &&
           Set(SOL_IP, IP_UNICAST_IF, index_in_network_order, "choose the adapter");
  }

  // A label other than 0 has to be leased before it is used.
  bool LeaseFlowLabel() {
    if (!ipv6_ || settings_.flow_label == 0) {
      return true;
    }
    if (settings_.flow_label > kFlowLabelMask) {
      return Fail("use a flow label of more than 20 bits", EINVAL);
    }
    in6_flowlabel_req request{};
    std::memcpy(&request.flr_dst, &std::get<platform::Ipv6Address>(settings_.destination),
                sizeof request.flr_dst);
    request.flr_label = htonl(settings_.flow_label);
    request.flr_action = IPV6_FL_A_GET;
    request.flr_share = IPV6_FL_S_ANY;
    request.flr_flags = IPV6_FL_F_CREATE;
    return Set(SOL_IPV6, IPV6_FLOWLABEL_MGR, request, "use the flow label") &&
           Set(SOL_IPV6, IPV6_FLOWINFO_SEND, 1, "use the flow label");
  }

  bool Bind() {
    if (!settings_.source && settings_.source_port == 0) {
      return true;
    }
    const IpAddress any =
        ipv6_ ? IpAddress(platform::Ipv6Address{}) : IpAddress(platform::Ipv4Address{});
    return Use(::bind, settings_.source.value_or(any), settings_.source_port, 0) ||
           Fail("use the source address and port", errno);
  }

  bool Connect() {
    return Use(::connect, settings_.destination, settings_.destination_port,
               settings_.flow_label) ||
           Fail("reach the destination", errno);
  }

  // A connected socket is preferred to a receiver that shares its port, and would keep what is
  // sent.
  bool SendsToAnother() {
    sockaddr_storage own{};
    sockaddr_storage peer{};
    socklen_t own_size = sizeof own;
    socklen_t peer_size = sizeof peer;
    if (::getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&own), &own_size) != 0 ||
        ::getpeername(socket_.Get(), reinterpret_cast<sockaddr*>(&peer), &peer_size) != 0) {
      return Fail("reach the destination", errno);
    }
    return AddressAndPort(own) != AddressAndPort(peer) ||
           Fail("send from the destination's own address and port", EADDRINUSE);
  }

  std::pair<IpAddress, std::uint16_t> AddressAndPort(const sockaddr_storage& name) const {
    if (!ipv6_) {
      const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(name);
      platform::Ipv4Address address{};
      std::memcpy(address.data(), &ipv4.sin_addr, address.size());
      return {address, ipv4.sin_port};
    }
    const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(name);
    platform::Ipv6Address address{};
    std::memcpy(address.data(), &ipv6.sin6_addr, address.size());
    return {address, ipv6.sin6_port};
  }

  bool Use(int (*call)(int, const sockaddr*, socklen_t), const IpAddress& address,
           std::uint16_t port, std::uint32_t flow_label) const {
    if (!ipv6_) {
      sockaddr_in ipv4{};
      ipv4.sin_family = AF_INET;
      ipv4.sin_port = htons(port);
      std::memcpy(&ipv4.sin_addr, &std::get<platform::Ipv4Address>(address), sizeof ipv4.sin_addr);
      return call(socket_.Get(), reinterpret_cast<const sockaddr*>(&ipv4), sizeof ipv4) == 0;
    }
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(port);
    ipv6.sin6_flowinfo = htonl(flow_label);
    std::memcpy(&ipv6.sin6_addr, &std::get<platform::Ipv6Address>(address), sizeof ipv6.sin6_addr);
    if (IN6_IS_ADDR_LINKLOCAL(&ipv6.sin6_addr) || IN6_IS_ADDR_MC_LINKLOCAL(&ipv6.sin6_addr)) {
      ipv6.sin6_scope_id = static_cast<std::uint32_t>(interface_index_);
    }
    return call(socket_.Get(), reinterpret_cast<const sockaddr*>(&ipv6), sizeof ipv6) == 0;
  }

  std::uint32_t IPv4Number() const {
    std::uint32_t number = 0;
    std::memcpy(&number, &std::get<platform::Ipv4Address>(settings_.destination), sizeof number);
    return ntohl(number);
  }

  const UdpSocketSettings& settings_;
  const char*& step_;
  const bool ipv6_;
  int interface_index_ = 0;
  Descriptor socket_;
};

}  // namespace

Descriptor OpenUdpSocket(const UdpSocketSettings& settings, const char*& step) {
  return UdpSocketOpener(settings, step).Open();
}

}  // namespace ipplayout
