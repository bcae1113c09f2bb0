// SPDX-License-Identifier: MIT
#include "host/stream/stream_facts.h"

#include <fmt/format.h>

#include <cstring>
#include <vector>

#include "host/stream/pes_times.h"

namespace ipplay {
namespace {

constexpr double kReadAheadSeconds = 2;
constexpr std::size_t kReadAheadLimit = 32 * std::size_t{1024} * 1024;

Failure NoTransportStream(const Input& input, std::uint64_t offset) {
  return UsageFailure(fmt::format(
      "INPUT: {} is not a transport stream: sync lost at offset {}; give --raw to play any bytes",
      input.Name(), offset));
}

// Walks over whole packets, checks their sync bytes and hands them to the meter.
class PacketWalker {
 public:
  explicit PacketWalker(PacketFormat format) : format_(format) {}

  // False at a packet without sync byte; packets() is then its index.
  bool Walk(std::span<const std::uint8_t> packets) {
    for (std::size_t at = 0; at < packets.size(); at += format_.packet_bytes) {
      const std::uint8_t* packet = packets.data() + at + format_.SyncOffset();
      if (*packet != 0x47) {
        return false;
      }
      meter_.Add(packets_, packet);
      times_.Add(packet);
      ++packets_;
    }
    return true;
  }

  std::uint64_t packets() const { return packets_; }
  const PcrRateMeter& meter() const { return meter_; }
  const PesTimes& times() const { return times_; }

 private:
  PacketFormat format_;
  PcrRateMeter meter_;
  PesTimes times_;
  std::uint64_t packets_ = 0;
};

std::uint64_t SyncOffsetOf(const StreamFacts& facts, std::uint64_t packet) {
  return facts.first_packet + packet * facts.format.packet_bytes + facts.format.SyncOffset();
}

std::optional<Failure> WalkFile(Input& input, StreamFacts& facts, PacketWalker& walker) {
  constexpr std::size_t kPacketsAtOnce = 500;
  input.Seek(facts.first_packet);
  std::vector<std::uint8_t> block(kPacketsAtOnce * facts.format.packet_bytes);
  std::size_t count = 0;
  while ((count = input.ReadFully(block)) > 0) {
    facts.trailing_bytes = count % facts.format.packet_bytes;
    if (!walker.Walk(std::span(block).first(count - facts.trailing_bytes))) {
      return NoTransportStream(input, SyncOffsetOf(facts, walker.packets()));
    }
  }
  if (input.ReadError() != 0) {
    return UsageFailure(
        fmt::format("INPUT: cannot read {}: {}", input.Name(), std::strerror(input.ReadError())));
  }
  facts.bytes = walker.packets() * facts.format.packet_bytes;
  input.Seek(facts.first_packet);
  return std::nullopt;
}

// `head` holds the bytes read to recognise the packets, and takes the bytes read ahead.
std::optional<Failure> WalkPipe(Input& input, StreamFacts& facts, std::vector<std::uint8_t> head,
                                bool want_rate, PacketWalker& walker) {
  const std::size_t packet_bytes = facts.format.packet_bytes;
  head.erase(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(facts.first_packet));
  std::size_t walked = 0;
  while (true) {
    const std::size_t whole = (head.size() - walked) / packet_bytes * packet_bytes;
    if (!walker.Walk(std::span(head).subspan(walked, whole))) {
      return NoTransportStream(input, SyncOffsetOf(facts, walker.packets()));
    }
    walked += whole;
    if (!want_rate || walker.meter().SecondsCovered() >= kReadAheadSeconds ||
        head.size() >= kReadAheadLimit) {
      break;
    }
    constexpr std::size_t kStep = 64 * std::size_t{1024};
    const std::size_t held = head.size();
    head.resize(held + kStep);
    const std::size_t count = input.Read(std::span(head).subspan(held));
    head.resize(held + count);
    if (count == 0) {
      break;
    }
  }
  input.Unread(std::move(head));
  return std::nullopt;
}

StreamFacts RawFacts(Input& input, std::vector<std::uint8_t> head) {
  StreamFacts facts;
  facts.bytes = input.Size();
  if (input.Size()) {
    input.Seek(0);
  } else {
    input.Unread(std::move(head));
  }
  return facts;
}

}  // namespace

std::optional<std::uint64_t> StreamFacts::Packets() const {
  if (!bytes || format.IsRaw()) {
    return std::nullopt;
  }
  return *bytes / format.packet_bytes;
}

std::optional<double> StreamFacts::BitRate() const {
  if (!rate) {
    return std::nullopt;
  }
  return rate->packets_per_second * 8 * format.CountedBytes();
}

Result<StreamFacts> Examine(Input& input, const ExamineOptions& options) {
  std::vector<std::uint8_t> head(options.raw ? 1 : kDetectionBytes);
  const std::size_t count = input.ReadFully(head);
  const bool whole = count < head.size();
  head.resize(count);
  if (count == 0) {
    if (input.ReadError() == 0) {
      return UsageFailure(fmt::format("INPUT: {} is empty", input.Name()));
    }
    return UsageFailure(
        fmt::format("INPUT: cannot read {}: {}", input.Name(), std::strerror(input.ReadError())));
  }
  if (options.raw) {
    return RawFacts(input, std::move(head));
  }

  const Detection detection = DetectPacketFormat(head, whole);
  if (!detection.format) {
    return NoTransportStream(input, detection.sync_lost);
  }
  StreamFacts facts;
  facts.format = *detection.format;
  facts.first_packet = detection.first_packet;
  PacketWalker walker(facts.format);
  const auto failure = input.Size()
                           ? WalkFile(input, facts, walker)
                           : WalkPipe(input, facts, std::move(head), options.want_rate, walker);
  if (failure) {
    return *failure;
  }
  facts.rate = walker.meter().Rate(options.pcr_pid);
  facts.content_ticks = walker.times().Ticks();
  return facts;
}

}  // namespace ipplay
