// SPDX-License-Identifier: MIT
#include "host/measure/capture/flow_key.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <cstring>

namespace ipplay::measure {
namespace {

std::string EndpointText(const FlowKey& key, const std::array<std::uint8_t, 16>& address,
                         std::uint16_t port) {
  char text[INET6_ADDRSTRLEN] = "";
  const bool v4 = key.ip_version == 4;
  ::inet_ntop(v4 ? AF_INET : AF_INET6, address.data(), text, sizeof text);
  return v4 ? fmt::format("{}:{}", text, port) : fmt::format("[{}]:{}", text, port);
}

}  // namespace

std::size_t FlowKeyHash::operator()(const FlowKey& key) const noexcept {
  std::uint64_t words[sizeof(FlowKey) / sizeof(std::uint64_t)];
  std::memcpy(words, &key, sizeof key);
  std::uint64_t hash = 0x9E3779B97F4A7C15U;
  for (const std::uint64_t word : words) {
    hash = (hash ^ word) * 0xD6E8FEB86659FD93U;
    hash ^= hash >> 32;
  }
  return hash;
}

std::string SourceText(const FlowKey& key) {
  return EndpointText(key, key.source, key.source_port);
}

std::string DestinationText(const FlowKey& key) {
  return EndpointText(key, key.destination, key.destination_port);
}

std::string VlanText(const FlowKey& key) {
  if (key.vlan == kNoVlan) {
    return "";
  }
  if (key.inner_vlan == kNoVlan) {
    return fmt::format("{}", key.vlan);
  }
  return fmt::format("{}.{}", key.vlan, key.inner_vlan);
}

}  // namespace ipplay::measure
