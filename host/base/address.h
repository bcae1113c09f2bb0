// SPDX-License-Identifier: MIT
// Network addresses and targets as users write them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ipplay {

using MacAddress = std::array<std::uint8_t, 6>;

// An IPv4 address in the first 4 bytes, or an IPv6 address in all 16; network order.
struct IpAddress {
  bool is_v6 = false;
  std::array<std::uint8_t, 16> bytes{};

  bool IsMulticast() const;
  bool IsLoopback() const;          // 127/8, ::1
  bool IsLimitedBroadcast() const;  // 255.255.255.255
  bool IsLinkLocal() const;         // fe80::/10, ff02::/16, 169.254/16
  bool operator==(const IpAddress&) const = default;
};

// Where a playout goes: "rtp://239.1.1.1:5004", "udp://[ff3e::8000:1]:5000".
struct Target {
  bool rtp = false;
  IpAddress address;
  std::uint16_t port = 0;
  std::string zone{};  // of a link-local address: the adapter, as in "udp://[fe80::1%eth0]:5000"
};

// Where a stream comes from: "239.1.1.1:5004", "10.0.0.1@232.1.1.1:5004", "[ff3e::8000:1]:5000".
struct Endpoint {
  std::optional<IpAddress> source;  // of its datagrams; none for any
  IpAddress address;
  std::uint16_t port = 0;
};

std::optional<MacAddress> ParseMac(std::string_view text);     // six hex bytes with ':' or '-'
std::optional<IpAddress> ParseIp(std::string_view text);       // literal, without brackets or scope
std::optional<Endpoint> ParseEndpoint(std::string_view text);  // also with an empty source
std::optional<Target> ParseTarget(std::string_view text);

std::string FormatMac(const MacAddress& mac);
std::string FormatIp(const IpAddress& address);
std::string FormatTarget(const Target& target);

// The MAC address of a multicast group: 01:00:5e and the low 23 bits (RFC 1112), or 33:33 and
// the low 32 bits (RFC 2464).
MacAddress MulticastMac(const IpAddress& group);

}  // namespace ipplay
