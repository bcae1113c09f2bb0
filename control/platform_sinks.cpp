// SPDX-License-Identifier: MIT
// The destinations of this platform, opened as the settings ask for them.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>

#include "control/destinations.h"
#include "driver/adapter_sink.h"
#include "driver/capture_file_sink.h"
#include "driver/udp_socket_sink.h"

namespace ipplayout {
namespace {

template <typename Sink>
std::unique_ptr<FrameSink> Take(Opened<Sink> opened, const std::string& what, Failure& failure) {
  if (opened.value == nullptr) {
    const bool out_of = opened.error == ENOMEM || opened.error == EMFILE || opened.error == ENFILE;
    failure = {out_of ? IPPLAYOUT_NO_RESOURCES : IPPLAYOUT_BAD_DESTINATION,
               what + ": cannot " + opened.step + ": " + std::strerror(opened.error)};
  }
  return std::move(opened.value);
}

template <typename Address>
Address ToAddress(const std::uint8_t (&bytes)[std::tuple_size_v<Address>]) {
  Address address{};
  std::copy_n(bytes, address.size(), address.begin());
  return address;
}

// An address of zeros is left to the system.
template <typename Address>
void SetAddresses(UdpSocketSettings& socket, const Address& source, const Address& destination) {
  socket.destination = destination;
  if (source != Address{}) {
    socket.source = source;
  }
}

std::unique_ptr<FrameSink> OpenSocket(const IpPlayoutSettings& settings,
                                      std::uint32_t udp_payload_offset, Failure& failure) {
  const ProtocolHeadersSettings& headers = settings.Params.ProtocolHeadersSettings;
  UdpSinkSettings sink;
  UdpSocketSettings& socket = sink.socket;
  if (settings.Params.IPLayerVersion == IPPLAYOUT_IPV4) {
    using platform::Ipv4Address;
    const IPHeaderSettings& ip = headers.IPHeaderSettings;
    SetAddresses(socket, ToAddress<Ipv4Address>(ip.SourceIP),
                 ToAddress<Ipv4Address>(ip.DestinationIP));
    socket.hop_limit = static_cast<std::uint8_t>(ip.TTL);
    socket.traffic_class = ip.TOS;
    socket.dont_fragment = settings.Params.IPFragmentation == IPPLAYOUT_DONT_FRAGMENT;
  } else {
    using platform::Ipv6Address;
    const IPv6HeaderSettings& ip = headers.IPv6HeaderSettings;
    SetAddresses(socket, ToAddress<Ipv6Address>(ip.SourceIPv6),
                 ToAddress<Ipv6Address>(ip.DestinationIPv6));
    socket.hop_limit = ip.HopLimit;
    socket.traffic_class = ip.TrafficClass;
    socket.flow_label = ip.FlowLabel;
  }
  socket.source_port = static_cast<std::uint16_t>(headers.UDPHeaderSettings.SourcePort);
  socket.share_source_port = true;
  socket.destination_port = static_cast<std::uint16_t>(headers.UDPHeaderSettings.DestinationPort);
  socket.interface = settings.Destination;
  sink.payload_offset = udp_payload_offset;
  sink.stamps = settings.Stamps == IPPLAYOUT_ON;
  sink.patience = std::chrono::nanoseconds::zero();  // other sockets share the thread
  return Take(UdpSocketSink::Open(sink), "UDP socket", failure);
}

class SystemSinks final : public SinkMaker {
 public:
  std::unique_ptr<FrameSink> Open(const IpPlayoutSettings& settings,
                                  std::uint32_t udp_payload_offset, Failure& failure) override {
    const std::string name = settings.Destination;
    switch (settings.To) {
      case IPPLAYOUT_TO_ADAPTER:
        // With stamps, since playouts that join later may want them.
        return Take(AdapterSink::Open({name, true, false}), name, failure);
      case IPPLAYOUT_TO_FILE: {
        CaptureFileSettings file;
        file.path = name;
        file.description = {"ipplayout", ""};
        return Take(CaptureFileSink::Open(file), name, failure);
      }
      default:
        return OpenSocket(settings, udp_payload_offset, failure);
    }
  }
};

}  // namespace

SinkMaker& PlatformSinks() {
  static SystemSinks sinks;
  return sinks;
}

}  // namespace ipplayout
