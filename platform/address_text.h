// SPDX-License-Identifier: MIT
// IP addresses between network-order bytes and numeric text, without scopes.
#pragma once

#include <optional>
#include <string>

#include "platform/addresses.h"

namespace ipplayout::platform {

// Dotted decimal.
std::string IPv4Text(const Ipv4Address& address);

// The shortest form, in small letters (RFC 5952).
std::string IPv6Text(const Ipv6Address& address);

// Nothing unless the whole text is one address.
std::optional<Ipv4Address> ParseIPv4(const std::string& text);
std::optional<Ipv6Address> ParseIPv6(const std::string& text);

}  // namespace ipplayout::platform
