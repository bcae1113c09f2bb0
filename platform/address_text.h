// SPDX-License-Identifier: MIT
// IP addresses between network-order bytes and numeric text, without scopes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace ipplayout::platform {

using IPv4Address = std::array<std::uint8_t, 4>;
using IPv6Address = std::array<std::uint8_t, 16>;

// Dotted decimal.
std::string IPv4Text(const IPv4Address& address);

// The shortest form, in small letters (RFC 5952).
std::string IPv6Text(const IPv6Address& address);

// Nothing unless the whole text is one address.
std::optional<IPv4Address> ParseIPv4(const std::string& text);
std::optional<IPv6Address> ParseIPv6(const std::string& text);

}  // namespace ipplayout::platform
