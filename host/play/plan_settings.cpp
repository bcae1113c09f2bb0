// SPDX-License-Identifier: MIT
#include "host/play/plan_settings.h"

#include <algorithm>
#include <cmath>

#include "host/play/plan_faults.h"

namespace ipplay {
namespace {

constexpr double kRingBytes = 64.0 * 1024 * 1024;

IPPlayParams ParamsFor(const PlayOptions& options, const Path& path, const Decisions& decided) {
  const Sizes& sizes = decided.sizes;
  IPPlayParams params{};
  params.DeviceIndex = path.adapter.index;
  path.adapter.description.copy(params.DeviceName, IPPLAYOUT_NAME_SIZE - 1);
  params.IPLayerVersion = options.to.address.is_v6 ? IPPLAYOUT_IPV6 : IPPLAYOUT_IPV4;
  params.ProtocolMode = options.to.rtp ? IPPLAYOUT_RTP : IPPLAYOUT_UDP;
  params.ReplicationCount = static_cast<std::int32_t>(options.copies - 1);
  params.ProtocolHeadersSettings = decided.headers.settings;
  params.ProtocolHeadersIncrements = decided.headers.increments;
  params.PacketSizeMode = sizes.to_the_byte ? IPPLAYOUT_SIZE_BYTES : IPPLAYOUT_SIZE_TS_PACKETS;
  params.TSPacketCount = sizes.to_the_byte ? 0 : sizes.payload_bytes / decided.format.packet_bytes;
  params.TSFragmentation = sizes.to_the_byte ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  params.IPPacketSize = decided.rates.rtp_step_bytes;
  params.IPFragmentation = sizes.dont_fragment ? IPPLAYOUT_DONT_FRAGMENT : IPPLAYOUT_MAY_FRAGMENT;
  return params;
}

// Sequence number and identification, unless they are given.
void StartNearWraps(const PlayOptions& options, const Decisions& decided,
                    ProtocolHeadersSettings& headers) {
  const double datagrams = kNearWrapSeconds * decided.rates.PayloadBytesPerSecond(decided.sizes) /
                           decided.sizes.payload_bytes;
  const auto before = static_cast<std::uint32_t>(std::clamp(std::ceil(datagrams), 1.0, 65535.0));
  if (!options.sequence) {
    headers.RTPHeaderSettings.RandomSequenceNumber = IPPLAYOUT_OFF;
    headers.RTPHeaderSettings.SequenceNumber = 65536 - before;
  }
  if (!options.identification && !options.to.address.is_v6) {
    headers.IPHeaderSettings.Identification = 65536 - before;
  }
}

// The library starts once 0.8 of PlayFileSizeForIP has been written.
std::uint64_t PlayFileSizeFor(const PlayOptions& options, const Decisions& decided) {
  constexpr double kThreshold = 0.8;
  std::chrono::nanoseconds prefill{0};
  if (decided.rounds.round_bytes) {
    prefill = std::chrono::seconds(1);
  } else if (decided.rounds.live) {
    prefill = std::chrono::milliseconds(200);
  }
  prefill = options.prefill.value_or(prefill);
  double bytes = decided.rates.PayloadBytesPerSecond(decided.sizes) *
                 static_cast<double>(prefill.count()) / 1e9;
  if (decided.rounds.total_bytes) {
    bytes = std::min(bytes, static_cast<double>(*decided.rounds.total_bytes));
  }
  return static_cast<std::uint64_t>(std::min(bytes, kRingBytes) / kThreshold);
}

}  // namespace

Settings SettingsFor(const PlayOptions& options, const Path& path, const Decisions& decided) {
  Settings settings;
  settings.params = ParamsFor(options, path, decided);
  if (options.near_wrap) {
    StartNearWraps(options, decided, settings.params.ProtocolHeadersSettings);
  }
  settings.errors = ErrorsFor(options);
  settings.shape = ShapeFor(options, decided.rates.batch);
  settings.other.PlayerThreadPriority = options.priority;
  settings.tts.TTSEnabled = decided.format.packet_bytes == 192 ? 1 : 0;
  settings.ts_packet_size = decided.format.CountedBytes();
  settings.ip_bit_rate = decided.rates.frame / 1e6;
  settings.play_file_size = PlayFileSizeFor(options, decided);
  return settings;
}

}  // namespace ipplay
