// SPDX-License-Identifier: MIT
#include "devices/address_resolution.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "devices/neighbour_solicitation.h"
#include "driver/device_name.h"
#include "platform/address_text.h"
#include "platform/debug_output.h"

namespace ipplayout {
namespace {

using platform::Ipv4Address;
using platform::Ipv6Address;
using platform::NeighbourReply;
using platform::NeighbourResult;

constexpr int kReads = 10;

struct Explanation {
  NeighbourResult result;
  const char* text;
};

constexpr std::array<Explanation, 6> kExplanations{{
    {NeighbourResult::kGeneralFailure, " (ERROR_GEN_FAILURE)\n"},
    {NeighbourResult::kBadNetName, " (ERROR_GEN_FAILURE)\n"},
    {NeighbourResult::kInvalidParameter, " (ERROR_INVALID_PARAMETER)\n"},
    {NeighbourResult::kBufferOverflow, " (ERROR_BUFFER_OVERFLOW)\n"},
    {NeighbourResult::kNotFound, " (ERROR_NOT_FOUND)\n"},
    {NeighbourResult::kInvalidUserBuffer, " (ERROR_INVALID_USER_BUFFER)\n"},
}};

const char* Explain(NeighbourResult result) {
  for (const Explanation& explanation : kExplanations) {
    if (explanation.result == result) {
      return explanation.text;
    }
  }
  return "\n";
}

void ReportFailure(NeighbourResult result) {
  char text[100];
  std::snprintf(text, sizeof text, "Error: SendArp failed with error: %d",
                static_cast<int>(result));
  platform::WriteDebugOutput(text);
  std::fputs(Explain(result), stdout);
}

void ReportEmptyReply() {
  platform::WriteDebugOutput("Warning: SendArp completed successfully, but returned length=0\n");
}

bool HasAddress(const DeviceIdentifier& device, const Ipv4Address& address) {
  std::vector<std::string> netmasks;
  for (const std::string& text : device.GetIPv4Addresses(netmasks)) {
    Ipv4Address own{};
    if (ReadDottedDecimal(text.c_str(), own.data()) && own == address) {
      return true;
    }
  }
  return false;
}

bool HasAddress(const std::vector<std::string>& texts, const Ipv6Address& address) {
  return std::any_of(texts.begin(), texts.end(), [&address](const std::string& text) {
    return platform::ParseIPv6(text) == address;
  });
}

// 0.0.0.0 without a first text.
Ipv4Address FirstOf(const std::vector<std::string>& texts) {
  Ipv4Address address{};
  if (!texts.empty()) {
    ReadDottedDecimal(texts.front().c_str(), address.data());
  }
  return address;
}

bool OnSameSubnet(const Ipv4Address& one, const Ipv4Address& other, const Ipv4Address& netmask) {
  for (std::size_t i = 0; i < netmask.size(); ++i) {
    if (((one[i] ^ other[i]) & netmask[i]) != 0) {
      return false;
    }
  }
  return true;
}

void CopyMac(const MacAddress& from, std::uint8_t* to) {
  std::memcpy(to, from.data(), from.size());
}

bool AcceptAdvertisementsFor(CaptureHandle& handle, const MacAddress& mac) {
  char text[512];
  std::snprintf(text, sizeof text, "%s %02X:%02X:%02X:%02X:%02X:%02X", "icmp6 and ether dst host",
                mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  constexpr std::uint32_t kNetmask = 0xFFFFFF;
  return handle.SetFilter(text, kNetmask).stage == FilterResult::Stage::kDone;
}

}  // namespace

bool ReadDottedDecimal(const char* text, std::uint8_t* bytes) {
  char work[16] = {};
  std::strncpy(work, text, sizeof work - 1);
  std::size_t count = 0;
  char* rest = nullptr;
  for (char* part = strtok_r(work, ".", &rest); part != nullptr && count < 4;
       part = strtok_r(nullptr, ".", &rest)) {
    const long value = std::strtol(part, nullptr, 10);
    if (value < 0 || value > 255) {
      return false;
    }
    bytes[count++] = static_cast<std::uint8_t>(value);
  }
  return count == 4;
}

bool AddressResolver::ResolveIPv4(const Ipv4Address& target, std::uint8_t* mac, int position) {
  const DeviceIdentifier* device = devices_.At(position);
  if (device != nullptr && HasAddress(*device, target)) {
    CopyMac(device->GetMacAddress(), mac);
    return true;
  }
  if (ResolveDirectly(target, mac, position)) {
    return true;
  }
  const auto gateway = NextHopForTarget(target, position);
  return gateway && ResolveGateway(*gateway, mac, position);
}

bool AddressResolver::ResolveDirectly(const Ipv4Address& target, std::uint8_t* mac, int position) {
  const NeighbourReply reply = neighbours_.ResolveNeighbour(target, InterfaceAt(position));
  if (reply.result != NeighbourResult::kDone) {
    ReportFailure(reply.result);
    return false;
  }
  CopyMac(reply.address, mac);
  if (reply.length == 0) {
    ReportEmptyReply();
  }
  return reply.length != 0;
}

bool AddressResolver::ResolveGateway(const Ipv4Address& gateway, std::uint8_t* mac, int position) {
  const NeighbourReply reply = neighbours_.ResolveNeighbour(gateway, InterfaceAt(position));
  CopyMac(MacAddress{}, mac);
  if (reply.result != NeighbourResult::kDone) {
    ReportFailure(reply.result);
    return false;
  }
  if (reply.length == 0) {
    ReportEmptyReply();
    return false;
  }
  CopyMac(reply.address, mac);
  return true;
}

std::optional<Ipv4Address> AddressResolver::NextHopForTarget(const Ipv4Address& target,
                                                             int position) {
  const DeviceIdentifier* device = devices_.At(position);
  if (device == nullptr) {
    return std::nullopt;
  }
  std::vector<std::string> netmasks;
  const auto addresses = device->GetIPv4Addresses(netmasks);
  const Ipv4Address source = FirstOf(addresses);
  if (!addresses.empty() && !netmasks.empty() && OnSameSubnet(target, source, FirstOf(netmasks))) {
    return std::nullopt;
  }
  return neighbours_.BestRoute(target, source, InterfaceAt(position));
}

std::string AddressResolver::InterfaceAt(int position) const {
  const DeviceIdentifier* device = devices_.At(position);
  return device == nullptr ? std::string() : NameWithoutPrefix(device->GetName()).value_or("");
}

bool AddressResolver::SolicitNeighbour(const std::uint8_t* target, std::uint8_t* mac,
                                       int position) {
  const DeviceIdentifier* device = devices_.At(position);
  if (target == nullptr || mac == nullptr || device == nullptr) {
    return false;
  }
  Ipv6Address wanted{};
  std::copy_n(target, wanted.size(), wanted.begin());
  const auto own = device->GetIPv6Addresses();
  if (HasAddress(own, wanted)) {
    CopyMac(device->GetMacAddress(), mac);
    return true;
  }
  const auto source = own.size() == 1 ? platform::ParseIPv6(own.front()) : std::nullopt;
  if (!source) {
    return false;
  }
  const SolicitationFrame question = BuildSolicitation(device->GetMacAddress(), *source, wanted);
  OpenOptions options;
  options.snapshot_length = static_cast<int>(kSolicitationSize);
  options.immediate = true;  // ten reads of a millisecond do not outlast a block
  const auto handle = driver_.Open(device->GetName(), options);
  if (handle == nullptr || !AcceptAdvertisementsFor(*handle, device->GetMacAddress()) ||
      !handle->SendFrame(question)) {
    return false;
  }
  for (int i = 0; i < kReads; ++i) {
    const auto frame = handle->NextFrame();
    if (const auto answer = frame ? ReadAdvertisement(frame->bytes, wanted) : std::nullopt) {
      CopyMac(*answer, mac);
      return true;
    }
  }
  return false;
}

}  // namespace ipplayout
