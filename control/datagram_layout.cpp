// SPDX-License-Identifier: MIT
#include "control/datagram_layout.h"

#include <algorithm>
#include <cmath>

#include "ipplayout/limits.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kTtsPacketSize = 192;

constexpr double kStartShare = 0.8;

std::int64_t WantedPayload(const PlayoutSettings& settings, std::uint32_t packet_size,
                           std::uint32_t header_length) {
  const IPPlayParams& params = settings.params;
  if (packet_size == 0 || params.PacketSizeMode == IPPLAYOUT_SIZE_BYTES) {
    return std::int64_t{params.IPPacketSize} - header_length;
  }
  if (params.PacketSizeMode == IPPLAYOUT_SIZE_TS_PACKETS) {
    // At most 2^64 - 2^33 + 1 as an unsigned product: limited before it is taken as signed.
    const std::uint64_t bytes = std::uint64_t{params.TSPacketCount} * packet_size;
    return static_cast<std::int64_t>(std::min<std::uint64_t>(bytes, INT64_MAX / 2));
  }
  return 0;
}

}  // namespace

double StreamBitRate(const PlayoutSettings& settings) {
  return settings.IPBitRate * 1000000;
}

double AggregateBitRate(const PlayoutSettings& settings) {
  const double streams = std::max(settings.params.ReplicationCount, 0) + 1.0;
  return streams * StreamBitRate(settings);
}

bool IsPlayable(const PlayoutSettings& settings) {
  const double rate = StreamBitRate(settings);
  return settings.params.IPLayerVersion <= IPPLAYOUT_IPV6 &&
         settings.params.ProtocolMode <= IPPLAYOUT_RTP && rate > 0 &&
         std::isfinite(AggregateBitRate(settings));
}

std::optional<DatagramLayout> LayOutDatagram(const PlayoutSettings& settings,
                                             std::uint32_t header_length) {
  const IPPlayParams& params = settings.params;
  DatagramLayout layout;
  layout.packet_size = settings.TSPacketSize != 0 && settings.tts.TTSEnabled == IPPLAYOUT_ON
                           ? kTtsPacketSize
                           : settings.TSPacketSize;
  std::int64_t payload = WantedPayload(settings, layout.packet_size, header_length);
  const std::int64_t room =
      std::int64_t{GetMaxIPMTU(params.IPLayerVersion, params.IPFragmentation)} - header_length;
  payload = std::min(payload, room);
  if (payload < 0) {
    return std::nullopt;
  }
  if (layout.packet_size != 0 && params.TSFragmentation != IPPLAYOUT_ON) {
    payload -= payload % layout.packet_size;
  }
  layout.datagram_size = static_cast<std::uint32_t>(payload) + header_length;
  return layout;
}

std::uint32_t PacketsPerQueue(const PlayoutSettings& settings, std::uint32_t burst_count) {
  const ParametricSettings& parametric = settings.parametric;
  return parametric.BurstMode == IPPLAYOUT_ON
             ? burst_count
             : IPPlayoutBatchFrames(&parametric, AggregateBitRate(settings));
}

std::uint32_t StartThreshold(std::uint64_t file_size, std::uint32_t capacity) {
  const auto limit = static_cast<std::uint32_t>(kStartShare * capacity);
  if (file_size >= limit) {
    return limit;
  }
  return static_cast<std::uint32_t>(kStartShare * static_cast<double>(file_size));
}

}  // namespace ipplayout
