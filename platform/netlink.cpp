// SPDX-License-Identifier: MIT
#include "platform/netlink.h"

#include <libmnl/libmnl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/clock.h"
#include "platform/descriptor.h"

namespace ipplayout::platform {
namespace {

constexpr std::size_t kReceiveSize = 32768;  // no message of the kernel's is larger

struct AttributeList {
  const nlattr** attributes;
  std::size_t size;
};

int KeepAttribute(const nlattr* attribute, void* context) {
  const auto& list = *static_cast<AttributeList*>(context);
  const std::size_t type = ::mnl_attr_get_type(attribute);
  if (type < list.size) {
    list.attributes[type] = attribute;
  }
  return MNL_CB_OK;
}

int CallHandler(const nlmsghdr* message, void* context) {
  (*static_cast<const NetlinkSocket::Handler*>(context))(*message);
  return MNL_CB_OK;
}

void* ContextOf(const NetlinkSocket::Handler& handler) {
  return const_cast<NetlinkSocket::Handler*>(&handler);  // CallHandler makes it const again
}

}  // namespace

const void* NetlinkPayload(const nlmsghdr& message) {
  return ::mnl_nlmsg_get_payload(&message);
}

NetlinkAttributes::NetlinkAttributes(const nlmsghdr& message, std::size_t header_size) {
  AttributeList list{attributes_.data(), attributes_.size()};
  ::mnl_attr_parse(&message, static_cast<unsigned>(header_size), KeepAttribute, &list);
}

std::span<const std::uint8_t> NetlinkAttributes::Bytes(std::size_t type) const {
  const nlattr* attribute = attributes_[type];
  if (attribute == nullptr) {
    return {};
  }
  return {static_cast<const std::uint8_t*>(::mnl_attr_get_payload(attribute)),
          ::mnl_attr_get_payload_len(attribute)};
}

std::uint32_t NetlinkAttributes::Number(std::size_t type, std::uint32_t absent) const {
  const auto bytes = Bytes(type);
  std::uint32_t number = absent;
  if (bytes.size() == sizeof number) {
    std::memcpy(&number, bytes.data(), sizeof number);
  }
  return number;
}

NetlinkRequest::NetlinkRequest(std::uint16_t type, std::uint16_t flags)
    : message_(::mnl_nlmsg_put_header(buffer_.data())) {
  message_->nlmsg_type = type;
  message_->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
}

void* NetlinkRequest::AddHeaderBytes(std::size_t size) {
  return ::mnl_nlmsg_put_extra_header(message_, size);
}

void NetlinkRequest::AddBytes(std::uint16_t type, std::span<const std::uint8_t> bytes) {
  ::mnl_attr_put(message_, type, bytes.size(), bytes.data());
}

void NetlinkRequest::AddNumber(std::uint16_t type, std::uint32_t number) {
  mnl_attr_put_u32(message_, type, number);
}

void NetlinkSocket::Close::operator()(mnl_socket* socket) const {
  ::mnl_socket_close(socket);
}

NetlinkSocket::NetlinkSocket(unsigned groups) {
  Descriptor opened =
      AboveStandard(Descriptor(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)));
  socket_.reset(opened.IsOpen() ? ::mnl_socket_fdopen(opened.Get()) : nullptr);
  if (socket_ != nullptr) {
    opened.Release();
  }
  if (socket_ != nullptr && ::mnl_socket_bind(socket_.get(), groups, MNL_SOCKET_AUTOPID) != 0) {
    socket_.reset();
  }
}

int NetlinkSocket::Exchange(NetlinkRequest& request, const Handler& handler) {
  nlmsghdr& message = request.Message();
  message.nlmsg_seq = ++sequence_;
  if (::mnl_socket_sendto(socket_.get(), &message, message.nlmsg_len) < 0) {
    return errno;
  }
  alignas(nlmsghdr) std::array<char, kReceiveSize> buffer;
  for (;;) {
    const auto size = ::mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
    if (size < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    const int result =
        ::mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), sequence_,
                     ::mnl_socket_get_portid(socket_.get()), CallHandler, ContextOf(handler));
    if (result != MNL_CB_OK) {
      return result == MNL_CB_STOP ? 0 : errno;
    }
  }
}

NetlinkSocket::Received NetlinkSocket::Receive(std::chrono::nanoseconds deadline,
                                               const Handler& handler) {
  if (!WaitUntilReadable(::mnl_socket_get_fd(socket_.get()), deadline)) {
    return Received::kTimeout;
  }
  alignas(nlmsghdr) std::array<char, kReceiveSize> buffer;
  const auto size = ::mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
  if (size < 0) {
    return errno == ENOBUFS ? Received::kOverrun : Received::kError;
  }
  ::mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), 0, 0, CallHandler,
               ContextOf(handler));
  return Received::kMessages;
}

}  // namespace ipplayout::platform
