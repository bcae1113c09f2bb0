// SPDX-License-Identifier: MIT
#include "host/measure/capture/link_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>

namespace ipplay::measure {

LinkWatch::LinkWatch(const std::string& adapter)
    : index_(::if_nametoindex(adapter.c_str())),
      socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK;
  if (index_ == 0 ||
      ::bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    socket_ = FileDescriptor();
    return;
  }
  // The state now. Its notice is the answer.
  struct {
    nlmsghdr header;
    ifinfomsg link;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.link.ifi_index = static_cast<int>(index_);
  ::send(socket_.Get(), &request, sizeof request, 0);
}

bool LinkWatch::Receive() {
  const ssize_t length = socket_.IsOpen() ? ::recv(socket_.Get(), buffer_, sizeof buffer_, 0) : -1;
  next_ = buffer_;
  left_ = length > 0 ? static_cast<std::size_t>(length) : 0;
  return left_ > 0;
}

std::optional<bool> LinkWatch::TakeChange() {
  while (left_ > 0 || Receive()) {
    const auto* header = reinterpret_cast<const nlmsghdr*>(next_);
    if (!NLMSG_OK(header, left_)) {
      left_ = 0;
      continue;
    }
    const char* const notice = next_;
    const std::size_t length = std::min<std::size_t>(NLMSG_ALIGN(header->nlmsg_len), left_);
    next_ += length;
    left_ -= length;
    if (header->nlmsg_type != RTM_NEWLINK && header->nlmsg_type != RTM_DELLINK) {
      continue;
    }
    const auto* link = reinterpret_cast<const ifinfomsg*>(notice + NLMSG_HDRLEN);
    const bool up = header->nlmsg_type == RTM_NEWLINK && (link->ifi_flags & IFF_UP) != 0 &&
                    (link->ifi_flags & IFF_RUNNING) != 0;
    if (link->ifi_index == static_cast<int>(index_) && up != up_) {
      return up_ = up;
    }
  }
  return std::nullopt;
}

}  // namespace ipplay::measure
