// SPDX-License-Identifier: MIT
#include "platform/address_text.h"

#include <arpa/inet.h>

namespace ipplayout::platform {
namespace {

template <int family, typename Address>
std::string Text(const Address& address) {
  char text[INET6_ADDRSTRLEN] = {};
  ::inet_ntop(family, address.data(), text, sizeof text);
  return text;
}

template <int family, typename Address>
std::optional<Address> Parse(const std::string& text) {
  Address address{};
  if (::inet_pton(family, text.c_str(), address.data()) != 1) {
    return std::nullopt;
  }
  return address;
}

}  // namespace

std::string IPv4Text(const Ipv4Address& address) {
  return Text<AF_INET>(address);
}

std::string IPv6Text(const Ipv6Address& address) {
  return Text<AF_INET6>(address);
}

std::optional<Ipv4Address> ParseIPv4(const std::string& text) {
  return Parse<AF_INET, Ipv4Address>(text);
}

std::optional<Ipv6Address> ParseIPv6(const std::string& text) {
  return Parse<AF_INET6, Ipv6Address>(text);
}

}  // namespace ipplayout::platform
