// SPDX-License-Identifier: MIT
#include "host/play/plan_capture.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/base/units.h"
#include "host/play/given_option.h"

namespace ipplay {
namespace {

std::optional<Failure> CheckExcluded(const PlayOptions& options) {
  const GivenOption kOptions[] = {
      {"--raw", options.raw},
      {"--bitrate", options.bit_rate.has_value()},
      {"--frame-bitrate", options.frame_bit_rate.has_value()},
      {"--burst", options.burst.has_value()},
      {"--restamp with --loop", options.restamp && options.rounds != 1},
      {"--near-wrap with --loop", options.near_wrap && options.rounds != 1}};
  if (const auto option = FirstGiven(kOptions)) {
    return UsageFailure(
        fmt::format("--timing capture and {} exclude each other; give one", *option));
  }
  return std::nullopt;
}

double MeanBytes(const DatagramFacts& datagrams) {
  return static_cast<double>(datagrams.bytes) / static_cast<double>(datagrams.count);
}

}  // namespace

std::optional<Failure> CheckCapture(const PlayOptions& options, const StreamFacts& facts) {
  if (options.keep_losses && !options.by_arrival) {
    return UsageFailure("--keep-losses needs --timing capture");
  }
  if (!options.by_arrival) {
    return std::nullopt;
  }
  if (auto failure = CheckExcluded(options)) {
    return failure;
  }
  if (!facts.datagrams) {
    return UsageFailure("--timing capture needs one pcap or pcapng file as INPUT; leave it out");
  }
  if (!CapturedPacketRate(facts)) {
    return UsageFailure(
        "--timing capture: all datagrams of the flow came at the same time; leave it out");
  }
  return std::nullopt;
}

std::optional<std::uint32_t> CapturedPackets(const PlayOptions& options, const StreamFacts& facts) {
  const std::uint32_t unit = facts.format.packet_bytes;
  if (!options.by_arrival || options.ts_per_datagram || options.frame_size ||
      !facts.datagrams->are_alike || facts.datagrams->first_bytes % unit != 0) {
    return std::nullopt;
  }
  return facts.datagrams->first_bytes / unit;
}

std::optional<double> CapturedPacketRate(const StreamFacts& facts) {
  const DatagramFacts& datagrams = *facts.datagrams;
  if (datagrams.last_ns <= datagrams.first_ns || datagrams.count < 2 || !facts.Packets()) {
    return std::nullopt;
  }
  const auto gaps = static_cast<double>(datagrams.count - 1 + datagrams.missing);
  const double gap_s = static_cast<double>(datagrams.last_ns - datagrams.first_ns) / gaps / 1e9;
  return MeanBytes(datagrams) / facts.format.packet_bytes / gap_s;
}

std::optional<Failure> CheckHoles(const PlayOptions& options, const StreamFacts& facts,
                                  PacketFormat format, const Sizes& sizes) {
  if (!options.keep_losses) {
    return std::nullopt;
  }
  const DatagramFacts& datagrams = *facts.datagrams;
  if (!datagrams.is_numbered) {
    return UsageFailure(
        "--keep-losses needs RTP: the flow has no sequence numbers that show what is missing");
  }
  if (options.from || options.duration || options.rounds != 1) {
    return UsageFailure("--keep-losses excludes --from, --duration and --loop; leave it out");
  }
  const std::uint64_t unit = facts.format.packet_bytes;
  if (!datagrams.are_alike || datagrams.first_bytes % unit != 0 || facts.first_packet != 0 ||
      facts.damage.places > 0) {
    return UsageFailure(
        "--keep-losses needs datagrams of one size with whole transport packets, and those of the "
        "flow differ; leave it out");
  }
  const std::uint64_t wanted = datagrams.first_bytes / unit * format.packet_bytes;
  if (sizes.payload_bytes != wanted) {
    return UsageFailure(fmt::format(
        "--keep-losses needs datagrams as in the capture, of {} packets; give no other size",
        datagrams.first_bytes / unit));
  }
  return std::nullopt;
}

void LimitAhead(const PlayOptions& options, const StreamFacts& facts, IpPlayoutSettings& schedule) {
  constexpr double kMarks = 50'000;  // of 65,536
  constexpr double kOrders = 8'000;  // of 4,096, which are for every other datagram at most
  constexpr double kLeast = 65'536;
  const double most = MeanBytes(*facts.datagrams) * (options.keep_losses ? kOrders : kMarks);
  const double bytes = std::clamp(most, kLeast, static_cast<double>(schedule.RingBytes));
  schedule.RingBytes = static_cast<std::uint32_t>(bytes);
  schedule.StartBytes = std::min(schedule.StartBytes, schedule.RingBytes / 2);
}

void NoteCapture(const PlayOptions& options, const StreamFacts& facts,
                 std::vector<std::string>& notes) {
  if (!options.by_arrival) {
    return;
  }
  if (!facts.datagrams->are_alike) {
    notes.emplace_back(
        "the captured datagrams differ in size: those that leave are filled evenly, each at the "
        "time of its first packet");
  }
  if (facts.datagrams->missing > 0 && !options.keep_losses && facts.datagrams->is_numbered) {
    notes.push_back(
        fmt::format("{} RTP packets are missing in the capture, and leave a hole in time only; "
                    "--keep-losses skips their sequence numbers, too",
                    FormatCount(facts.datagrams->missing)));
  }
}

}  // namespace ipplay
