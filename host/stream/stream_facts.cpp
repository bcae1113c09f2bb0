// SPDX-License-Identifier: MIT
#include "host/stream/stream_facts.h"

#include <bitstream/mpeg/ts.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <vector>

#include "host/base/units.h"
#include "host/stream/packet_reader.h"
#include "host/stream/pes_times.h"
#include "host/stream/stream_filter.h"

namespace ipplay {
namespace {

constexpr std::uint16_t kNullPid = 0x1FFF;

Failure CannotRead(const Input& input) {
  return UsageFailure(
      fmt::format("INPUT: cannot read {}: {}", input.Name(), std::strerror(input.ReadError())));
}

Failure NoTransportStream(const Input& input, std::uint64_t offset) {
  return UsageFailure(fmt::format(
      "INPUT: {} is not a transport stream: sync lost at offset {}; give --raw to play any bytes",
      input.Name(), offset));
}

// Hands packets to the meters.
class PacketWalker {
 public:
  PacketWalker(PacketFormat format, const FilterOrder& filter)
      : filter_(format, filter), format_(format) {}

  void Walk(std::span<const std::uint8_t> packets) {
    if (!filter_.LeavesAll()) {
      filtered_.assign(packets.begin(), packets.end());
      filter_.Filter(filtered_);
      packets = filtered_;
    }
    for (std::size_t at = 0; at < packets.size(); at += format_.packet_bytes) {
      const std::uint8_t* packet = packets.data() + at + format_.SyncOffset();
      meter_.Add(packets_, packet);
      times_.Add(packet);
      tables_.Add(packet);
      ++packets_;
      ++looked_at_;
      if (ts_get_pid(packet) == kNullPid) {
        ++nulls_;
      }
    }
  }

  // The next packet is the one with this index; those before it are not looked at.
  void SkipTo(std::uint64_t index) {
    meter_.Skip();
    times_.Skip();
    tables_.Skip();
    packets_ = index;
  }

  std::uint64_t packets() const { return packets_; }
  double NullShare() const {
    return looked_at_ == 0 ? 0 : static_cast<double>(nulls_) / static_cast<double>(looked_at_);
  }
  const PcrRateMeter& meter() const { return meter_; }
  const PesTimes& times() const { return times_; }
  const StreamTables& tables() const { return tables_.Found(); }
  const StreamFilter& filter() const { return filter_; }

 private:
  StreamFilter filter_;
  std::vector<std::uint8_t> filtered_;
  PacketFormat format_;
  PcrRateMeter meter_;
  PesTimes times_;
  TableCollector tables_;
  std::uint64_t packets_ = 0;
  std::uint64_t looked_at_ = 0;
  std::uint64_t nulls_ = 0;
};

void WalkAll(Input& input, PacketReader& reader, PacketWalker& walker) {
  for (auto packets = reader.Next(); !packets.empty(); packets = reader.Next()) {
    walker.Walk(packets);
    input.ForgetArrivalsBefore(reader.Offset());
  }
}

// Takes beginning and end of what is to be played from the PCRs.
std::optional<Failure> FindWindow(Input& input, const ExamineOptions& options, StreamFacts& facts) {
  TimeWindow window(facts.format, *options.window, options.pcr_pid);
  bool started = false;
  input.Seek(facts.first_packet);
  PacketReader reader(input, facts.format, facts.first_packet);
  for (auto packets = reader.Next(); !packets.empty() && !window.IsOver();
       packets = reader.Next()) {
    const auto inside = window.Pass(packets);
    const std::uint64_t start = reader.Offset() - packets.size() +
                                static_cast<std::uint64_t>(inside.data() - packets.data());
    if (!started && !inside.empty()) {
      started = true;
      facts.first_packet = start;
    }
    if (window.IsOver()) {
      facts.end = start + inside.size();
    }
  }
  if (!window.HasClock()) {
    return UsageFailure("--from and --duration need PCRs, and INPUT has none; leave them out");
  }
  if (!started) {
    const auto length = std::chrono::nanoseconds(window.Elapsed() * 1000 / 27);
    return UsageFailure(
        fmt::format("--from: INPUT lasts {} by its PCRs; give less", FormatDuration(length)));
  }
  return std::nullopt;
}

void WalkWhole(Input& input, StreamFacts& facts, PacketWalker& walker) {
  PacketReader reader(input, facts.format, facts.first_packet, facts.end);
  WalkAll(input, reader, walker);
  facts.end = reader.Offset() + reader.TrailingBytes();
  facts.bytes = walker.packets() * facts.format.packet_bytes;
  facts.trailing_bytes = reader.TrailingBytes();
  facts.damage = reader.Damaged();
}

void WalkEnds(Input& input, std::uint64_t size, StreamFacts& facts, PacketWalker& walker) {
  constexpr std::uint64_t kPackets = 100'000;  // at each end
  const std::uint64_t unit = facts.format.packet_bytes;
  PacketReader head(input, facts.format, facts.first_packet, facts.first_packet + kPackets * unit);
  WalkAll(input, head, walker);
  const std::uint64_t packets = (size - facts.first_packet) / unit;
  const std::uint64_t tail_start = facts.first_packet + (packets - kPackets) * unit;
  input.Seek(tail_start);
  walker.SkipTo(packets - kPackets);
  PacketReader tail(input, facts.format, tail_start);
  WalkAll(input, tail, walker);
  facts.end = tail.Offset() + tail.TrailingBytes();
  facts.bytes = (tail.Offset() - facts.first_packet) / unit * unit;
  facts.trailing_bytes = tail.TrailingBytes();
}

std::optional<Failure> WalkFile(Input& input, const ExamineOptions& options, StreamFacts& facts,
                                PacketWalker& walker) {
  if (options.window) {
    if (auto failure = FindWindow(input, options, facts)) {
      return failure;
    }
  }
  input.Seek(facts.first_packet);
  if (options.window || options.whole || *input.Size() <= kLargeFile) {
    WalkWhole(input, facts, walker);
  } else {
    WalkEnds(input, *input.Size(), facts, walker);
  }
  if (input.ReadError() != 0) {
    return CannotRead(input);
  }
  input.Seek(facts.first_packet);
  return std::nullopt;
}

// `head` holds the bytes read to recognise the packets, and takes the bytes read ahead.
void WalkPipe(Input& input, const ExamineOptions& options, StreamFacts& facts,
              std::vector<std::uint8_t> head, PacketWalker& walker) {
  const double ahead = std::chrono::duration<double>(options.read_ahead).count();
  head.erase(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(facts.first_packet));
  PacketSync sync(facts.format, true);
  std::size_t walked = 0;
  while (true) {
    for (auto run = sync.Find(std::span(head).subspan(walked), false); run.skipped + run.bytes > 0;
         run = sync.Find(std::span(head).subspan(walked), false)) {
      walker.Walk(std::span(head).subspan(walked + run.skipped, run.bytes));
      walked += run.skipped + run.bytes;
    }
    if (walker.meter().SecondsCovered() >= ahead || head.size() >= options.most_read_ahead) {
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
}

// Reads as much as it takes to find packets.
Detection ReadHead(Input& input, std::vector<std::uint8_t>& head) {
  Detection detection;
  for (std::size_t wanted = kDetectionBytes; wanted <= kLongestHead; wanted *= 2) {
    const std::size_t held = head.size();
    head.resize(wanted);
    head.resize(held + input.ReadFully(std::span(head).subspan(held)));
    const bool whole = head.size() < wanted;
    detection = DetectPacketFormat(head, whole);
    if (detection.format || whole) {
      break;
    }
  }
  return detection;
}

// Of a pipe only the beginning was looked at.
std::optional<Failure> CheckFilter(const Input& input, const FilterOrder& order,
                                   const StreamFilter& found) {
  const auto programs = found.Programs();
  if (order.program && !programs.contains(*order.program) && (input.Size() || !programs.empty())) {
    return UsageFailure(programs.empty()
                            ? fmt::format("--program: {} has no PAT; leave it out", input.Name())
                            : fmt::format("--program: {} has no programme {}; give one of {}",
                                          input.Name(), *order.program, fmt::join(programs, ", ")));
  }
  auto pids = found.Pids();
  pids.erase(kPatPid);
  pids.erase(kNullPid);
  const auto missing = std::find_if(order.pids.begin(), order.pids.end(),
                                    [&](std::uint16_t pid) { return !pids.contains(pid); });
  if (input.Size() && missing != order.pids.end()) {
    return UsageFailure(pids.empty() ? fmt::format("--pid: {} has null packets only", input.Name())
                                     : fmt::format("--pid: {} has no PID {}; give some of {}",
                                                   input.Name(), *missing, fmt::join(pids, ", ")));
  }
  return std::nullopt;
}

StreamFacts RawFacts(Input& input, std::vector<std::uint8_t> head) {
  StreamFacts facts;
  facts.bytes = facts.end = input.Size();
  facts.live = input.IsLive();
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

std::optional<double> StreamFacts::BitRate(PacketFormat of) const {
  if (!rate) {
    return std::nullopt;
  }
  return rate->packets_per_second * 8 * of.CountedBytes();
}

Result<StreamFacts> Examine(Input& input, const ExamineOptions& options) {
  std::vector<std::uint8_t> head;
  Detection detection;
  if (options.raw) {
    head.resize(1);
    head.resize(input.ReadFully(head));
  } else {
    detection = ReadHead(input, head);
  }
  if (input.ReadError() != 0) {
    return CannotRead(input);
  }
  if (head.empty()) {
    return UsageFailure(fmt::format("INPUT: {} is empty", input.Name()));
  }
  if (options.raw) {
    return RawFacts(input, std::move(head));
  }
  constexpr std::size_t kLeast = 188;
  if (!detection.format && head.size() < kLeast) {
    return UsageFailure(
        fmt::format("INPUT: {} has {}, fewer than a transport packet; give --raw to play any "
                    "bytes",
                    input.Name(), FormatCount(head.size(), "byte")));
  }
  if (!detection.format) {
    return NoTransportStream(input, detection.sync_lost);
  }
  StreamFacts facts;
  facts.format = *detection.format;
  facts.first_packet = facts.leading_bytes = detection.first_packet;
  facts.live = input.IsLive();
  facts.datagrams = input.Datagrams();
  PacketWalker walker(facts.format, options.filter);
  if (!input.Size()) {
    WalkPipe(input, options, facts, std::move(head), walker);
    facts.window = options.window;
  } else if (const auto failure = WalkFile(input, options, facts, walker)) {
    return *failure;
  }
  facts.filter = options.filter;
  if (auto failure = CheckFilter(input, options.filter, walker.filter())) {
    return *std::move(failure);
  }
  facts.rate = walker.meter().Rate(options.pcr_pid);
  facts.null_share = walker.NullShare();
  facts.content_ticks = walker.times().Ticks();
  facts.tables = walker.tables();
  return facts;
}

}  // namespace ipplay
