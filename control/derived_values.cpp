// SPDX-License-Identifier: MIT
// The exported values that follow from the settings alone.
#include "control/settings_store.h"
#include "ipplayout/ipplayout.h"

using ipplayout::PlayoutSettings;
using ipplayout::Settings;

namespace {

constexpr std::uint32_t kEthernet = 14;  // IEEE 802.3
constexpr std::uint32_t kTag = 4;        // IEEE 802.1Q
constexpr std::uint32_t kIpv4 = 20;      // RFC 791, without options
constexpr std::uint32_t kIpv6 = 40;      // RFC 8200
constexpr std::uint32_t kUdp = 8;        // RFC 768
constexpr std::uint32_t kRtp = 12;       // RFC 3550

std::uint32_t LinkHeaders(const PlayoutSettings& settings) {
  return kEthernet +
         (settings.params.ProtocolHeadersSettings.VLANEnabled == IPPLAYOUT_ON ? kTag : 0);
}

std::uint32_t TransportHeaders(const PlayoutSettings& settings) {
  return kUdp + (settings.params.ProtocolMode == IPPLAYOUT_RTP ? kRtp : 0);
}

std::uint32_t PacketSize(const PlayoutSettings& settings) {
  if (settings.tts.TTSEnabled != IPPLAYOUT_ON || settings.TSPacketSize == 0) {
    return settings.TSPacketSize;
  }
  switch (settings.TSPacketSize) {
    case 188:
    case 192:
    case 204:
    case 208:
      return 192;
    default:
      return 0;
  }
}

// What follows the IP header of `ip_header` bytes, less what the frame holds in front of it. Sizes
// that are smaller than their headers wrap, as the 32-bit fields they are kept in.
std::uint32_t FrameSize(const PlayoutSettings& settings, std::uint32_t ip_header) {
  switch (settings.params.PacketSizeMode) {
    case IPPLAYOUT_SIZE_BYTES:
      return settings.params.IPPacketSize;
    case IPPLAYOUT_SIZE_TS_PACKETS:
      return settings.params.TSPacketCount * PacketSize(settings) + LinkHeaders(settings) +
             ip_header + TransportHeaders(settings);
    default:
      // No size is given: a frame of headers alone, so that no length claims a payload.
      return LinkHeaders(settings) + ip_header + TransportHeaders(settings);
  }
}

}  // namespace

uint32_t GetMaxIPMTU(uint32_t ipLayerVersion, uint32_t ipFragmentation) {
  constexpr std::uint32_t kLargest = 16128;
  constexpr std::uint32_t kUnfragmented = 1500;
  switch (ipLayerVersion) {
    case IPPLAYOUT_IPV4:
      return ipFragmentation == IPPLAYOUT_MAY_FRAGMENT ? kLargest : kUnfragmented;
    case IPPLAYOUT_IPV6:
      return kLargest;
    default:
      return 0;
  }
}

uint32_t GetTotalLength() {
  PlayoutSettings& settings = Settings();
  std::uint32_t& total = settings.params.ProtocolHeadersSettings.IPHeaderSettings.TotalLength;
  total = FrameSize(settings, kIpv4) - LinkHeaders(settings);
  return total;
}

uint32_t GetIpv6PayloadLength() {
  PlayoutSettings& settings = Settings();
  std::uint32_t& length =
      settings.params.ProtocolHeadersSettings.IPv6HeaderSettings.Ipv6PayloadLength;
  length = FrameSize(settings, kIpv6) - LinkHeaders(settings) - kIpv6;
  return length;
}

uint32_t GetLength() {
  PlayoutSettings& settings = Settings();
  const std::uint32_t ip_header = settings.params.IPLayerVersion == IPPLAYOUT_IPV4 ? kIpv4 : kIpv6;
  std::uint32_t& length = settings.params.ProtocolHeadersSettings.UDPHeaderSettings.Length;
  length = FrameSize(settings, ip_header) - LinkHeaders(settings) - ip_header;
  return length;
}

int GetStreamReplicationCount(uint32_t* out) {
  if (out != nullptr) {
    *out = static_cast<uint32_t>(Settings().params.ReplicationCount);
  }
  return 1;
}
