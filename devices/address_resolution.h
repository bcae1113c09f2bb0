// SPDX-License-Identifier: MIT
// Finding the MAC address that frames to an IP address are sent to.
#pragma once

#include <cstdint>
#include <optional>

#include "devices/device_list.h"
#include "driver/capture_driver.h"
#include "platform/addresses.h"
#include "platform/neighbour.h"

namespace ipplayout {

// Dotted decimal text to four bytes. Reads at most 15 characters; a part that is no number counts
// as 0 and what follows the fourth part is ignored. False when there are fewer than four parts or
// one is not 0 to 255; the bytes before it are stored all the same.
bool ReadDottedDecimal(const char* text, std::uint8_t* bytes);

// Works on the calling thread. `position` counts as DeviceIndex; one outside the list has no
// addresses of its own and no gateway. ARP failures are reported on standard error and
// standard output.
class AddressResolver {
 public:
  // None of the three is owned.
  AddressResolver(const DeviceList& devices, CaptureDriver& driver,
                  platform::NeighbourService& neighbours)
      : devices_(devices), driver_(driver), neighbours_(neighbours) {}

  // By ARP, of the gateway when the target does not answer and is off the device's subnet. On
  // failure the 6 bytes at `mac` hold no address.
  bool ResolveIPv4(const platform::Ipv4Address& target, std::uint8_t* mac, int position);

  // The gateway on the way to `target`. Nothing for a target on the device's own subnet.
  std::optional<platform::Ipv4Address> NextHopForTarget(const platform::Ipv4Address& target,
                                                        int position);

  // By a neighbour solicitation of the library's own and ten reads of at most 1 ms. The 16 bytes at
  // `target` are asked for by a device with exactly one IPv6 address. `mac` gets 6 bytes.
  bool SolicitNeighbour(const std::uint8_t* target, std::uint8_t* mac, int position);

 private:
  bool ResolveDirectly(const platform::Ipv4Address& target, std::uint8_t* mac, int position);
  bool ResolveGateway(const platform::Ipv4Address& gateway, std::uint8_t* mac, int position);
  std::string InterfaceAt(int position) const;

  const DeviceList& devices_;
  CaptureDriver& driver_;
  platform::NeighbourService& neighbours_;
};

}  // namespace ipplayout
