// SPDX-License-Identifier: MIT
// Routing netlink (rtnetlink(7)): requests to the kernel and its notifications.
#pragma once

#include <linux/netlink.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

struct mnl_socket;
struct nlattr;

namespace ipplayout::platform {

const void* NetlinkPayload(const nlmsghdr& message);

// The family header that stands first in the payload.
template <typename Header>
const Header& NetlinkHeader(const nlmsghdr& message) {
  return *static_cast<const Header*>(NetlinkPayload(message));
}

// The attributes of one message by type.
class NetlinkAttributes {
 public:
  // They follow a family header of `header_size` bytes. `message` outlives the object.
  NetlinkAttributes(const nlmsghdr& message, std::size_t header_size);

  // Empty when the message has no such attribute.
  std::span<const std::uint8_t> Bytes(std::size_t type) const;
  std::uint32_t Number(std::size_t type, std::uint32_t absent) const;

 private:
  static constexpr std::size_t kTypes = 64;
  std::array<const nlattr*, kTypes> attributes_{};
};

// A request being put together. Its family header and attributes must fit 256 bytes.
class NetlinkRequest {
 public:
  NetlinkRequest(std::uint16_t type, std::uint16_t flags);

  // Zeroed room for the family header, which comes before every attribute.
  template <typename Header>
  Header& AddHeader() {
    return *static_cast<Header*>(AddHeaderBytes(sizeof(Header)));
  }
  void AddBytes(std::uint16_t type, std::span<const std::uint8_t> bytes);
  void AddNumber(std::uint16_t type, std::uint32_t number);

  nlmsghdr& Message() { return *message_; }

 private:
  void* AddHeaderBytes(std::size_t size);

  alignas(nlmsghdr) std::array<std::uint8_t, 256> buffer_{};
  nlmsghdr* message_;
};

// Used by one thread.
class NetlinkSocket {
 public:
  // Must not throw.
  using Handler = std::function<void(const nlmsghdr&)>;
  enum class Received { kMessages, kTimeout, kOverrun, kError };

  // Joins the notification groups of a mask of RTMGRP_ bits. IsOpen tells whether that worked.
  explicit NetlinkSocket(unsigned groups);

  bool IsOpen() const { return socket_ != nullptr; }

  // Sends the request, hands each message of the answer over and returns 0 or the kernel's error
  // number. Only for a socket without groups.
  int Exchange(NetlinkRequest& request, const Handler& handler);

  // Waits for notifications, not past `deadline` on the monotonic clock, and hands them over.
  // kOverrun: the kernel had to drop some.
  Received Receive(std::chrono::nanoseconds deadline, const Handler& handler);

 private:
  struct Close {
    void operator()(mnl_socket* socket) const;
  };

  std::unique_ptr<mnl_socket, Close> socket_;
  std::uint32_t sequence_ = 0;
};

}  // namespace ipplayout::platform
