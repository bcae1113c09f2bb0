// SPDX-License-Identifier: MIT
#include "host/base/host_name.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "host/base/numbers.h"
#include "host/base/socket_address.h"

namespace ipplay {
namespace {

// RFC 1123, and the underscore of many a laboratory. Digits and dots alone are a bad address.
bool CanBeHost(std::string_view text) {
  const auto is_letter = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
  return std::any_of(text.begin(), text.end(), is_letter) &&
         std::all_of(text.begin(), text.end(), [&](char c) {
           return is_letter(c) || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
         });
}

}  // namespace

std::optional<NamedTarget> SplitNamedTarget(std::string_view text) {
  constexpr std::uint64_t kHighestPort = 65535;
  NamedTarget target;
  target.rtp = text.starts_with("rtp://");
  if (!target.rtp && !text.starts_with("udp://")) {
    return std::nullopt;
  }
  text.remove_prefix(6);
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || !CanBeHost(text.substr(0, colon))) {
    return std::nullopt;
  }
  const auto port = ParseNumber(text.substr(colon + 1), 0, kHighestPort);
  if (!port) {
    return std::nullopt;
  }
  target.host = text.substr(0, colon);
  target.port = static_cast<std::uint16_t>(*port);
  return target;
}

std::optional<IpAddress> AddressOfHost(const std::string& host) {
  const addrinfo hints{.ai_flags = 0,
                       .ai_family = AF_UNSPEC,
                       .ai_socktype = SOCK_DGRAM,
                       .ai_protocol = 0,
                       .ai_addrlen = 0,
                       .ai_addr = nullptr,
                       .ai_canonname = nullptr,
                       .ai_next = nullptr};
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, ::freeaddrinfo);
  for (const int family : {AF_INET, AF_INET6}) {
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
      if (entry->ai_family != family) {
        continue;
      }
      return FromSockaddr(entry->ai_addr);
    }
  }
  return std::nullopt;
}

}  // namespace ipplay
