// SPDX-License-Identifier: MIT
#include "host/base/address.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace ipplay {
namespace {

bool TakePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) {
    return false;
  }
  text.remove_prefix(prefix.size());
  return true;
}

std::optional<std::uint16_t> ParsePort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc{} || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return port;
}

// As in a URL: an IPv6 address in brackets.
std::optional<IpAddress> ParseHost(std::string_view text) {
  const bool bracketed = text.starts_with('[') && text.ends_with(']');
  const auto address = ParseIp(bracketed ? text.substr(1, text.size() - 2) : text);
  return address && address->is_v6 == bracketed ? address : std::nullopt;
}

}  // namespace

bool IpAddress::IsMulticast() const {
  return is_v6 ? bytes[0] == 0xFF : (bytes[0] & 0xF0) == 0xE0;
}

bool IpAddress::IsLoopback() const {
  const IpAddress v6_loopback = {.is_v6 = true,
                                 .bytes = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
  return is_v6 ? *this == v6_loopback : bytes[0] == 127;
}

bool IpAddress::IsLimitedBroadcast() const {
  return !is_v6 && bytes[0] == 255 && bytes[1] == 255 && bytes[2] == 255 && bytes[3] == 255;
}

bool IpAddress::IsLinkLocal() const {
  if (!is_v6) {
    return bytes[0] == 169 && bytes[1] == 254;
  }
  return (bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80) ||
         (bytes[0] == 0xFF && (bytes[1] & 0x0F) == 0x02);
}

std::optional<MacAddress> ParseMac(std::string_view text) {
  constexpr std::size_t kLength = 17;
  if (text.size() != kLength || (text[2] != ':' && text[2] != '-')) {
    return std::nullopt;
  }
  MacAddress mac{};
  for (std::size_t i = 0; i < mac.size(); ++i) {
    const char* digits = text.data() + 3 * i;
    if (i > 0 && digits[-1] != text[2]) {
      return std::nullopt;
    }
    const auto [end, error] = std::from_chars(digits, digits + 2, mac[i], 16);
    if (error != std::errc{} || end != digits + 2) {
      return std::nullopt;
    }
  }
  return mac;
}

std::optional<IpAddress> ParseIp(std::string_view text) {
  const std::string terminated(text);
  IpAddress address;
  if (::inet_pton(AF_INET, terminated.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  address = {.is_v6 = true};
  if (::inet_pton(AF_INET6, terminated.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  return std::nullopt;
}

std::optional<Endpoint> ParseEndpoint(std::string_view text) {
  Endpoint endpoint;
  if (const std::size_t at = text.find('@'); at != std::string_view::npos) {
    endpoint.source = ParseHost(text.substr(0, at));
    if (at > 0 && !endpoint.source) {
      return std::nullopt;
    }
    text.remove_prefix(at + 1);
  }
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const auto address = ParseHost(text.substr(0, colon));
  const auto port = ParsePort(text.substr(colon + 1));
  if (!address || !port || (endpoint.source && endpoint.source->is_v6 != address->is_v6)) {
    return std::nullopt;
  }
  endpoint.address = *address;
  endpoint.port = *port;
  return endpoint;
}

std::optional<Target> ParseTarget(std::string_view text) {
  Target target;
  target.rtp = TakePrefix(text, "rtp://");
  if (!target.rtp && !TakePrefix(text, "udp://")) {
    return std::nullopt;
  }
  TakePrefix(text, "@");  // as receivers write it
  std::string host(text);
  // RFC 4007, 11, as far as the brackets go.
  if (const std::size_t percent = host.find('%'); percent != std::string::npos) {
    const std::size_t end = host.find(']', percent);
    if (end == std::string::npos || end == percent + 1) {
      return std::nullopt;
    }
    target.zone = host.substr(percent + 1, end - percent - 1);
    if (!std::all_of(target.zone.begin(), target.zone.end(),
                     [](char c) { return c > ' ' && c < 0x7F; })) {
      return std::nullopt;
    }
    host.erase(percent, end - percent);
  }
  const auto endpoint = ParseEndpoint(host);
  if (!endpoint || text.find('@') != std::string_view::npos ||
      (!target.zone.empty() && !(endpoint->address.is_v6 && endpoint->address.IsLinkLocal()))) {
    return std::nullopt;
  }
  target.address = endpoint->address;
  target.port = endpoint->port;
  return target;
}

std::string FormatMac(const MacAddress& mac) {
  return fmt::format("{:02x}", fmt::join(mac, ":"));
}

std::string FormatIp(const IpAddress& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  ::inet_ntop(address.is_v6 ? AF_INET6 : AF_INET, address.bytes.data(), text.data(), text.size());
  return text.data();
}

std::string FormatTarget(const Target& target) {
  std::string host = FormatIp(target.address);
  if (!target.zone.empty()) {
    host += '%' + target.zone;
  }
  return fmt::format("{}://{}:{}", target.rtp ? "rtp" : "udp",
                     target.address.is_v6 ? '[' + host + ']' : host, target.port);
}

MacAddress MulticastMac(const IpAddress& group) {
  const auto& b = group.bytes;
  if (group.is_v6) {
    return {0x33, 0x33, b[12], b[13], b[14], b[15]};
  }
  return {0x01, 0x00, 0x5E, static_cast<std::uint8_t>(b[1] & 0x7F), b[2], b[3]};
}

}  // namespace ipplay
