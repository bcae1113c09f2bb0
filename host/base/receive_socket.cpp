// SPDX-License-Identifier: MIT
#include "host/base/receive_socket.h"

#include <fmt/format.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "host/base/socket_address.h"
#include "host/base/socket_option.h"

namespace ipplay {
namespace {

constexpr std::size_t kDatagramsAtOnce = 32;
constexpr std::size_t kLargestDatagram = 65536;
constexpr int kKernelBuffer = 8 << 20;
// Linux has it since 4.20; its headers here may be older.
constexpr int kIpv6MulticastAll = 29;

// Without the "all" options a socket gets what any other process has joined, too.
bool Join(int fd, const Endpoint& from, unsigned interface) {
  const int level = from.address.is_v6 ? IPPROTO_IPV6 : IPPROTO_IP;
  const int off = 0;
  SetOption(fd, level, from.address.is_v6 ? kIpv6MulticastAll : IP_MULTICAST_ALL, off);
  return JoinGroup(fd, interface, from.address, from.source);
}

Failure CannotReceive(const Endpoint& from, const char* what) {
  const std::string host = FormatIp(from.address);
  return {ExitStatus::kNoAccess, fmt::format("INPUT: cannot {} {}:{}: {}", what,
                                             from.address.is_v6 ? '[' + host + ']' : host,
                                             from.port, std::strerror(errno))};
}

}  // namespace

struct ReceiveSocket::Buffers {
  std::array<std::array<std::uint8_t, kLargestDatagram>, kDatagramsAtOnce> bytes;
  std::array<std::array<std::uint8_t, 128>, kDatagramsAtOnce> control;
  std::array<sockaddr_storage, kDatagramsAtOnce> senders;
  std::array<iovec, kDatagramsAtOnce> vectors;
  std::array<mmsghdr, kDatagramsAtOnce> messages;
};

void ReceiveSocket::BuffersDeleter::operator()(Buffers* buffers) const {
  delete buffers;
}

ReceiveSocket::ReceiveSocket(FileDescriptor fd, const Endpoint& from)
    : fd_(std::move(fd)), from_(from), buffers_(new Buffers) {
  datagrams_.reserve(kDatagramsAtOnce);
}

Result<ReceiveSocket> ReceiveSocket::Open(const Endpoint& from, const std::string& interface) {
  const unsigned index = interface.empty() ? 0 : ::if_nametoindex(interface.c_str());
  if (!interface.empty() && index == 0) {
    return Failure{ExitStatus::kNoAccess, fmt::format("INPUT: there is no adapter {}", interface)};
  }
  FileDescriptor fd(::socket(from.address.is_v6 ? AF_INET6 : AF_INET,
                             SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  SetOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, on);
  SetOption(fd.Get(), SOL_SOCKET, SO_TIMESTAMPNS, on);
  SetOption(fd.Get(), SOL_SOCKET, SO_RXQ_OVFL, on);
  if (!SetOption(fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, kKernelBuffer)) {
    SetOption(fd.Get(), SOL_SOCKET, SO_RCVBUF, kKernelBuffer);
  }
  if (!interface.empty() && ::setsockopt(fd.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.data(),
                                         static_cast<socklen_t>(interface.size())) != 0) {
    return CannotReceive(from, "use the adapter for");
  }
  const SocketAddress own = ToSockaddr(from.address, from.port, index);
  if (::bind(fd.Get(), own.Get(), own.length) != 0) {
    return CannotReceive(from, "receive at");
  }
  if (from.address.IsMulticast() && !Join(fd.Get(), from, index)) {
    return CannotReceive(from, "join");
  }
  return ReceiveSocket(std::move(fd), from);
}

std::span<const ReceiveSocket::Datagram> ReceiveSocket::Receive() {
  datagrams_.clear();
  for (std::size_t i = 0; i < kDatagramsAtOnce; ++i) {
    buffers_->vectors[i] = {buffers_->bytes[i].data(), buffers_->bytes[i].size()};
    buffers_->messages[i] = {};
    msghdr& header = buffers_->messages[i].msg_hdr;
    header.msg_name = &buffers_->senders[i];
    header.msg_namelen = sizeof buffers_->senders[i];
    header.msg_iov = &buffers_->vectors[i];
    header.msg_iovlen = 1;
    header.msg_control = buffers_->control[i].data();
    header.msg_controllen = buffers_->control[i].size();
  }
  const int count = ::recvmmsg(fd_.Get(), buffers_->messages.data(), kDatagramsAtOnce, 0, nullptr);
  for (std::size_t i = 0; count > 0 && i < static_cast<std::size_t>(count); ++i) {
    mmsghdr& message = buffers_->messages[i];
    Datagram datagram{{buffers_->bytes[i].data(), message.msg_len}, 0};
    for (cmsghdr* part = CMSG_FIRSTHDR(&message.msg_hdr); part != nullptr;
         part = CMSG_NXTHDR(&message.msg_hdr, part)) {
      if (part->cmsg_level != SOL_SOCKET) {
        continue;
      }
      if (part->cmsg_type == SCM_TIMESTAMPNS) {
        timespec time{};
        std::memcpy(&time, CMSG_DATA(part), sizeof time);
        datagram.time_ns = std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
      } else if (part->cmsg_type == SO_RXQ_OVFL) {
        std::uint32_t dropped = 0;
        std::memcpy(&dropped, CMSG_DATA(part), sizeof dropped);
        dropped_ = dropped;
      }
    }
    if (!from_.source ||
        FromSockaddr(reinterpret_cast<const sockaddr*>(&buffers_->senders[i])) == from_.source) {
      datagrams_.push_back(datagram);
    }
  }
  return datagrams_;
}

}  // namespace ipplay
