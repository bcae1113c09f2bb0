// SPDX-License-Identifier: MIT
#include "driver/packet_socket.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>

namespace ipplayout {

using platform::Descriptor;

// Protocol 0 in socket and address: the kernel delivers no frame to it.
Descriptor OpenPacketSocket(unsigned interface_index) {
  Descriptor socket = platform::AboveStandard(
      Descriptor(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)));
  if (!socket.IsOpen()) {
    return socket;
  }
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(interface_index);
  if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    socket = Descriptor();
    errno = error;
    return socket;
  }
  const int on = 1;
  ::setsockopt(socket.Get(), SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
  return socket;
}

}  // namespace ipplayout
