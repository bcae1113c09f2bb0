// SPDX-License-Identifier: MIT
// What the programs that stand beside the library on the wire have in common.
#pragma once

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

// Without the adapter the program ends with the reason. A protocol of 0 receives nothing.
inline void BindPacketSocket(int descriptor, const char* device, std::uint16_t protocol) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(protocol);
  address.sll_ifindex = static_cast<int>(if_nametoindex(device));
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    std::perror(device);
    std::exit(1);
  }
}

// A packet socket of an adapter, which receives nothing yet.
inline int OpenPacketSocket(const char* device) {
  const int descriptor = socket(AF_PACKET, SOCK_RAW, 0);
  BindPacketSocket(descriptor, device, 0);
  return descriptor;
}

// A socket for sending that goes past the queueing discipline, as the library's does.
inline int OpenSendingSocket(const char* device) {
  const int descriptor = OpenPacketSocket(device);
  const int on = 1;
  setsockopt(descriptor, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
  return descriptor;
}

// The header of what play_steady sends, so that the far end has the same work with it: Ethernet II
// and IPv4 to a multicast group, UDP. Worked out by hand for frames of 1,370 bytes.
inline std::vector<std::uint8_t> MakeBareFrame(std::size_t size) {
  constexpr std::array<std::uint8_t, 42> kHeader{
      0x01, 0x00, 0x5E, 0x01, 0x02, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x08, 0x00,  //
      0x45, 0x00, 0x05, 0x4C, 0x00, 0x00, 0x40, 0x00, 0x10, 0x11, 0x6A, 0x4F, 0x0A, 0x4D,  //
      0x00, 0x01, 0xEF, 0x01, 0x02, 0x03, 0x9C, 0x40, 0x13, 0x8C, 0x05, 0x38, 0x00, 0x00};
  std::vector<std::uint8_t> frame(std::max(size, kHeader.size()), 0x47);
  std::copy(kHeader.begin(), kHeader.end(), frame.begin());
  return frame;
}
