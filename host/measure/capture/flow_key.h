// SPDX-License-Identifier: MIT
// What tells one UDP flow from another on the wire: addresses, ports and VLAN tags.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>

namespace ipplay::measure {

inline constexpr std::uint16_t kNoVlan = 0xFFFF;

// Compared and hashed as bytes: it has no padding, and unused bytes are zero.
struct FlowKey {
  std::array<std::uint8_t, 16> source{};       // network order; IPv4 in the first four
  std::array<std::uint8_t, 16> destination{};  // network order; IPv4 in the first four
  std::uint16_t source_port = 0;
  std::uint16_t destination_port = 0;
  std::uint16_t vlan = kNoVlan;        // VLAN ID of the outer or only tag
  std::uint16_t inner_vlan = kNoVlan;  // VLAN ID of a second tag
  std::uint64_t ip_version = 4;

  friend bool operator==(const FlowKey&, const FlowKey&) = default;
};
static_assert(sizeof(FlowKey) == 48);

// Both with a key of this process, so that nobody can send flows that collide.
struct KeyedHash {
  std::size_t operator()(std::uint64_t number) const noexcept;
};
struct FlowKeyHash {
  std::size_t operator()(const FlowKey& key) const noexcept;
};

std::string SourceText(const FlowKey& key);       // "10.0.0.1:5004", "[fd00::1]:5004"
std::string DestinationText(const FlowKey& key);  // the same for the other end
std::string VlanText(const FlowKey& key);         // "", "100", "100.7"

}  // namespace ipplay::measure
