// SPDX-License-Identifier: MIT
#include "host/play/play_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "host/base/units.h"
#include "host/play/plan_headers.h"

namespace ipplay {
namespace {

using std::chrono::nanoseconds;

constexpr std::uint32_t kDefaultPacketsPerDatagram = 7;
constexpr std::uint32_t kDefaultRawPayload = 7 * 188;
constexpr double kRingBytes = 64.0 * 1024 * 1024;
constexpr std::uint64_t kLargestQueueBytes = 256 * std::uint64_t{1024} * 1024;
constexpr double kWrapSeconds = 3;

// The steps of a plan, each of which may refuse. They run in the order of Make().
class Planner {
 public:
  Planner(const PlayOptions& options, const StreamFacts& facts, const Path& path)
      : options_(options), facts_(facts), path_(path) {}

  Result<PlayPlan> Make() {
    using Step = std::optional<Failure> (Planner::*)();
    for (const Step step : {&Planner::CheckErrors, &Planner::SetHeaders, &Planner::SetPayload,
                            &Planner::CheckFrame, &Planner::SetRate, &Planner::SetRounds,
                            &Planner::SetRestamp, &Planner::SetShape, &Planner::SetRtpClock}) {
      if (auto failure = (this->*step)()) {
        return *std::move(failure);
      }
    }
    SetErrors();
    SetWraps();
    SetRest();
    AddNotes();
    return std::move(plan_);
  }

 private:
  bool IsV6() const { return options_.to.address.is_v6; }
  bool IsRtp() const { return options_.to.rtp; }
  std::uint32_t PacketBytes() const { return facts_.format.packet_bytes; }
  IPPlayParams& params() { return plan_.settings.params; }
  void Note(std::string text) { plan_.notes.push_back(std::move(text)); }

  std::optional<Failure> CheckErrors();
  std::optional<Failure> CheckTimeLine() const;
  std::optional<Failure> SetHeaders();
  std::optional<Failure> SetPayload();
  std::optional<Failure> CheckFrame();
  std::optional<Failure> SetRate();
  std::optional<Failure> SetRounds();
  std::optional<Failure> SetRestamp();
  std::optional<Failure> SetShape();
  std::optional<Failure> SetRtpClock();
  void SetErrors();
  void SetWraps();
  void SetRest();
  void SetBatch();
  void AddNotes();
  void AddStreamNotes();
  std::uint64_t NullPackets(std::uint64_t packets) const;
  std::string SizeOption() const;
  double PayloadBytesPerSecond() const;

  const PlayOptions& options_;
  const StreamFacts& facts_;
  const Path& path_;
  PlayPlan plan_;
};

std::optional<Failure> Planner::CheckErrors() {
  if (options_.delay && !IsRtp()) {
    return UsageFailure("--delay: allowed with rtp:// targets only");
  }
  if (options_.bad_ip_checksum && IsV6()) {
    return UsageFailure(
        "--bad-ip-checksum: allowed with IPv4 targets only; IPv6 has no header checksum");
  }
  if (options_.bad_ip_checksum && options_.bad_udp_checksum) {
    return UsageFailure(
        "--bad-udp-checksum: not together with --bad-ip-checksum; allowed is one of them on "
        "schedule, the other with --at or keys");
  }
  if (options_.random && !options_.lose && !options_.delay && !options_.bad_ip_checksum &&
      !options_.bad_udp_checksum) {
    return UsageFailure("--random: allowed with --lose, --delay or --bad-...-checksum only");
  }
  if (options_.pcr_pid && options_.raw) {
    return UsageFailure(
        "--pcr-pid: not together with --raw, which knows no PCRs; allowed is one of them");
  }
  return CheckTimeLine();
}

std::optional<Failure> Planner::CheckTimeLine() const {
  for (const auto& [time, action] : options_.time_line) {
    if (action.kind == ActionKind::kDelay && !IsRtp()) {
      return UsageFailure("--at: delay is allowed with rtp:// targets only");
    }
    if (action.kind == ActionKind::kBadIpChecksum && IsV6()) {
      return UsageFailure("--at: bad-ip-checksum is allowed with IPv4 targets only");
    }
  }
  return std::nullopt;
}

std::optional<Failure> Planner::SetHeaders() {
  plan_.copies = options_.copies;
  params().DeviceIndex = path_.adapter.index;
  path_.adapter.description.copy(params().DeviceName, IPPLAYOUT_NAME_SIZE - 1);
  params().IPLayerVersion = IsV6() ? 1 : 0;
  params().ProtocolMode = IsRtp() ? 1 : 0;
  params().ReplicationCount = static_cast<std::int32_t>(options_.copies - 1);
  return PlanHeaders(options_, path_, params(), plan_.notes);
}

std::string Planner::SizeOption() const {
  if (options_.frame_size) {
    return fmt::format("--frame-size {}", *options_.frame_size);
  }
  return fmt::format("--ts-per-datagram {}",
                     options_.ts_per_datagram.value_or(kDefaultPacketsPerDatagram));
}

std::optional<Failure> Planner::SetPayload() {
  if (options_.frame_size && options_.ts_per_datagram) {
    return UsageFailure(
        "--frame-size: not together with --ts-per-datagram; allowed is one of them");
  }
  if (options_.cut && !options_.frame_size) {
    return UsageFailure("--cut: allowed with --frame-size only, the size to fill");
  }
  if (options_.raw && options_.ts_per_datagram) {
    return UsageFailure(
        "--ts-per-datagram: not together with --raw, which knows no transport packets; allowed is "
        "--frame-size");
  }
  const bool to_the_byte = options_.raw || options_.cut;
  const std::uint32_t headers = HeaderBytes(params());
  const std::uint32_t unit = to_the_byte ? 1 : PacketBytes();
  std::uint32_t payload =
      options_.raw ? kDefaultRawPayload
                   : options_.ts_per_datagram.value_or(kDefaultPacketsPerDatagram) * PacketBytes();
  if (options_.frame_size) {
    if (*options_.frame_size < headers + unit) {
      return UsageFailure(fmt::format("{}: allowed is {} or more; the headers take {} bytes",
                                      SizeOption(), headers + unit, headers));
    }
    payload = (*options_.frame_size - headers) / unit * unit;
  }
  plan_.header_bytes = headers;
  plan_.payload_bytes = payload;
  plan_.frame_bytes = headers + payload;
  params().PacketSizeMode = to_the_byte ? 0 : 1;
  params().TSPacketCount = to_the_byte ? 0 : payload / PacketBytes();
  params().TSFragmentation = to_the_byte ? 1 : 0;
  params().IPPacketSize = plan_.frame_bytes;
  plan_.settings.tts.TTSEnabled = PacketBytes() == 192 ? 1 : 0;
  plan_.settings.ts_packet_size = facts_.format.CountedBytes();
  return std::nullopt;
}

// The library cuts larger datagrams silently, and the adapter refuses them.
std::optional<Failure> Planner::CheckFrame() {
  constexpr std::uint32_t kLargestUnfragmented = 1500;
  const bool dont_fragment =
      options_.dont_fragment.value_or(plan_.frame_bytes <= kLargestUnfragmented);
  params().IPFragmentation = dont_fragment ? 0 : 1;
  const std::uint32_t largest = GetMaxIPMTU(params().IPLayerVersion, params().IPFragmentation);
  if (plan_.frame_bytes > largest) {
    return UsageFailure(fmt::format("{}: frames of {} bytes; allowed are {}{}", SizeOption(),
                                    plan_.frame_bytes, largest,
                                    IsV6() || !dont_fragment ? "" : ", or --dont-fragment off"));
  }
  const std::uint32_t link_header = options_.vlan ? 18 : 14;
  if (path_.adapter.mtu && plan_.frame_bytes - link_header > *path_.adapter.mtu) {
    return UsageFailure(fmt::format("{}: IP packets of {} bytes; allowed on {} are {}",
                                    SizeOption(), plan_.frame_bytes - link_header,
                                    path_.adapter.name, *path_.adapter.mtu));
  }
  return std::nullopt;
}

// IPBitRate counts whole frames: the stream's rate grows by what headers add to each payload, and
// by the four bytes in front of each packet of time-stamped input.
std::optional<Failure> Planner::SetRate() {
  if (options_.bit_rate && options_.frame_bit_rate) {
    return UsageFailure("--frame-bitrate: not together with --bitrate; allowed is one of them");
  }
  // A lost datagram takes no time in the library: the next one leaves in its stead. So that the
  // stream keeps its own time, the frames that are left have to be as much slower.
  if (options_.lose && options_.lose->count < options_.lose->range) {
    plan_.share_that_leaves = 1 - static_cast<double>(options_.lose->count) / options_.lose->range;
  }
  const double packet_share =
      facts_.format.IsRaw() ? 1 : static_cast<double>(PacketBytes()) / facts_.format.CountedBytes();
  const double frame_share = packet_share * plan_.frame_bytes /
                             static_cast<double>(plan_.payload_bytes) * plan_.share_that_leaves;
  const double speed = 1 + options_.ppm / 1e6;
  if (options_.frame_bit_rate) {
    plan_.frame_rate = *options_.frame_bit_rate * speed;
    plan_.stream_rate = plan_.frame_rate / frame_share;
  } else {
    const auto rate = options_.bit_rate ? options_.bit_rate : facts_.BitRate();
    if (!rate) {
      return UsageFailure(
          options_.pcr_pid
              ? "--pcr-pid: INPUT has no PCRs there; allowed is one with PCRs, or --bitrate"
              : "--bitrate: needed, since INPUT has no PCRs that tell its rate");
    }
    plan_.stream_rate = *rate * speed;
    plan_.frame_rate = plan_.stream_rate * frame_share;
  }
  plan_.settings.ip_bit_rate = plan_.frame_rate / 1e6;
  return std::nullopt;
}

std::optional<Failure> Planner::SetRounds() {
  plan_.rounds = options_.rounds;
  if (plan_.rounds != 1 && !facts_.bytes) {
    return UsageFailure("--loop: allowed with a file only; a pipe can be read once");
  }
  plan_.round_bytes = facts_.bytes;
  if (facts_.bytes && plan_.rounds) {
    plan_.total_bytes = *facts_.bytes * *plan_.rounds;
  }
  return std::nullopt;
}

// A round that is shorter than its content, as where a file was cut, would let the next one begin
// before the last frames are over.
std::uint64_t Planner::NullPackets(std::uint64_t packets) const {
  const double missing = static_cast<double>(facts_.content_ticks) * 300 -
                         static_cast<double>(facts_.rate->TicksOf(packets));
  if (missing <= 0) {
    return 0;
  }
  const double count =
      std::ceil(missing / static_cast<double>(kPcrHz) * facts_.rate->packets_per_second);
  // More than the file itself has are no end of a file that was cut, but time stamps that jump.
  return count > static_cast<double>(packets) ? 0 : static_cast<std::uint64_t>(count);
}

std::optional<Failure> Planner::SetRestamp() {
  if (options_.restamp && facts_.format.IsRaw()) {
    return UsageFailure(
        "--restamp: not together with --raw, which knows no transport packets; allowed is one "
        "of them");
  }
  if (!facts_.rate) {
    if (options_.restamp) {
      return UsageFailure("--restamp: allowed with PCRs to go by only, and INPUT has none");
    }
    return std::nullopt;
  }
  if (!options_.restamp && !options_.near_wrap) {
    return std::nullopt;
  }
  RestampPlan restamp;
  restamp.pcr_pid = facts_.rate->pid;
  if (const auto packets = facts_.Packets()) {
    if (plan_.rounds != 1) {
      restamp.seam = SeamPackets(*facts_.rate, *packets, NullPackets(*packets));
    }
    const std::uint64_t played = *packets + restamp.seam.size();
    restamp.round_ticks = facts_.rate->TicksOf(played);
    plan_.round_bytes = played * PacketBytes();
    if (plan_.rounds) {
      plan_.total_bytes = *plan_.round_bytes * *plan_.rounds;
    }
  }
  if (options_.near_wrap) {
    const auto before = static_cast<std::uint64_t>(kWrapSeconds * static_cast<double>(kPcrHz));
    restamp.start_offset = (2 * kPcrModulus - before - facts_.rate->first_pcr) % kPcrModulus;
  }
  plan_.restamp = restamp;
  return std::nullopt;
}

std::optional<Failure> Planner::SetShape() {
  ParametricSettings& shape = plan_.settings.shape;
  if (options_.jitter) {
    shape.JitterEnabled = 1;
    shape.JitterPeriod = options_.jitter->amount;
    shape.JitterDistributionType = options_.jitter->distribution;
  }
  SetBatch();
  const double frames_per_second = plan_.frame_rate * plan_.copies / (plan_.frame_bytes * 8.0);
  plan_.gap = nanoseconds(std::llround(std::min(1e9 / frames_per_second, 9e18)));
  if (plan_.batch > kLargestQueueBytes / (plan_.frame_bytes + 24)) {
    return UsageFailure(fmt::format("--burst: {} frames at a time; allowed are {} of this size",
                                    plan_.batch, kLargestQueueBytes / (plan_.frame_bytes + 24)));
  }
  if (options_.burst) {
    shape.BurstMode = 1;
    shape.BurstValueType = 1;
    shape.BurstSize = static_cast<std::uint32_t>(plan_.batch);
  }
  return std::nullopt;
}

// The library's own rule, for people to see: the last line that applies wins. It counts the frames
// of all streams in a burst, --burst those of each.
void Planner::SetBatch() {
  constexpr double kBatchedFrom = 80e6;
  constexpr std::uint32_t kSine = 3;
  plan_.batch = plan_.copies * plan_.frame_rate > kBatchedFrom ? 10 : 1;
  if (options_.jitter) {
    plan_.batch = options_.jitter->distribution == kSine ? 200 : 10;
  }
  if (!options_.burst) {
    return;
  }
  const double by_time =
      options_.burst->milliseconds * plan_.frame_rate / (plan_.frame_bytes * 8000.0);
  plan_.batch = options_.burst->by_time ? static_cast<std::uint64_t>(std::min(by_time, 4e9))
                                        : options_.burst->datagrams;
  plan_.batch = std::max<std::uint64_t>(plan_.batch, 1) * plan_.copies;
}

// The RTP clock goes on by IPPacketSize bytes at IPBitRate for every frame, copies included. So
// IPPacketSize is the frame's size; with copies it is their share of it, and with losses the share
// of what leaves, in whole bytes, where the payload is given as a number of packets and
// IPPacketSize has no other use.
std::optional<Failure> Planner::SetRtpClock() {
  if (!IsRtp()) {
    return std::nullopt;
  }
  if (plan_.frame_rate < 1 || plan_.frame_rate >= 4294967296.0) {
    return UsageFailure(
        fmt::format("{}: frames at {}; allowed with rtp:// are 1 bit/s to 4.29 Gbit/s per stream, "
                    "which is what the RTP clock can count",
                    options_.frame_bit_rate ? "--frame-bitrate" : "--bitrate",
                    FormatBitRate(plan_.frame_rate)));
  }
  const double right_step = plan_.frame_bytes * plan_.share_that_leaves;
  if (params().PacketSizeMode == 1) {
    params().IPPacketSize =
        static_cast<std::uint32_t>(std::max(1.0, std::round(right_step / plan_.copies)));
  }
  const double step = static_cast<double>(params().IPPacketSize) * plan_.copies;
  const double whole_rate = std::trunc(plan_.frame_rate);
  plan_.rtp_clock_ratio = step / right_step * plan_.frame_rate / whole_rate;
  constexpr double kTolerance = 30e-6;
  if (std::abs(plan_.rtp_clock_ratio - 1) > kTolerance) {
    const std::string reason =
        step == right_step
            ? fmt::format("the clock counts whole bits per second, {} of {:.6g}", whole_rate,
                          plan_.frame_rate)
            : fmt::format("the clock goes on with every {}, by {} bytes for a frame of {}",
                          plan_.copies > 1 ? "copy, lost ones included" : "datagram, lost or not",
                          params().IPPacketSize, plan_.frame_bytes);
    Note(fmt::format("RTP time runs at {:.6g} kHz instead of 90: {}", plan_.rtp_clock_ratio * 90,
                     reason));
  }
  return std::nullopt;
}

void Planner::SetErrors() {
  ErrorInsertion& errors = plan_.settings.errors;
  if (options_.lose) {
    errors.PacketLossEnabled = 1;
    errors.NumPacketLoss = options_.lose->count;
    errors.PacketLossRange = options_.lose->range;
  }
  if (options_.delay) {
    errors.SequenceErrorEnabled = 1;
    errors.NumSequenceError = options_.delay->errors.count;
    errors.SequenceErrorRange = options_.delay->errors.range;
    errors.SequenceErrorDistance = options_.delay->distance;
  }
  const auto& checksum =
      options_.bad_ip_checksum ? options_.bad_ip_checksum : options_.bad_udp_checksum;
  if (checksum) {
    errors.ChecksumErrorEnabled = 1;
    errors.ChecksumErrorType = options_.bad_ip_checksum ? 0 : 1;
    errors.NumChecksumError = checksum->count;
    errors.ChecksumErrorRange = checksum->range;
  }
  errors.RandomizeErrors = options_.random ? 1 : 0;
  errors.ErrInsertionEnable = options_.lose || options_.delay || checksum ? 1 : 0;
}

void Planner::SetWraps() {
  if (!options_.near_wrap) {
    return;
  }
  const double datagrams = kWrapSeconds * PayloadBytesPerSecond() / plan_.payload_bytes;
  const auto before = static_cast<std::uint32_t>(std::clamp(std::ceil(datagrams), 1.0, 65535.0));
  if (!options_.sequence) {
    params().ProtocolHeadersSettings.RTPHeaderSettings.RandomSequenceNumber = 0;
    params().ProtocolHeadersSettings.RTPHeaderSettings.SequenceNumber = 65536 - before;
  }
  if (!options_.identification && !IsV6()) {
    params().ProtocolHeadersSettings.IPHeaderSettings.Identification = 65536 - before;
  }
}

double Planner::PayloadBytesPerSecond() const {
  return plan_.frame_rate / plan_.share_that_leaves / 8 * plan_.payload_bytes / plan_.frame_bytes;
}

// The library starts once 0.8 of PlayFileSizeForIP has been written.
void Planner::SetRest() {
  constexpr double kThreshold = 0.8;
  const nanoseconds prefill =
      options_.prefill.value_or(facts_.bytes ? std::chrono::seconds(1) : nanoseconds(0));
  double bytes = PayloadBytesPerSecond() * static_cast<double>(prefill.count()) / 1e9;
  if (plan_.total_bytes) {
    bytes = std::min(bytes, static_cast<double>(*plan_.total_bytes));
  }
  plan_.settings.play_file_size =
      static_cast<std::uint64_t>(std::min(bytes, kRingBytes) / kThreshold);
  plan_.settings.other.PlayerThreadPriority = options_.priority;
}

void Planner::AddNotes() {
  AddStreamNotes();
  if (options_.near_wrap && !plan_.restamp) {
    Note("--near-wrap: INPUT has no PCRs; RTP sequence number and IPv4 identification only");
  }
  if (options_.jitter && options_.jitter->distribution == 0 &&
      options_.jitter->amount * 500 > static_cast<double>(plan_.gap.count())) {
    Note(
        fmt::format("--jitter: half of it is more than the gap of {}; no datagram leaves before "
                    "the one in front of it",
                    FormatDuration(plan_.gap)));
  }
}

void Planner::AddStreamNotes() {
  const auto own = facts_.BitRate();
  constexpr double kSameRate = 1e-3;
  if (own && options_.bit_rate && std::abs(*options_.bit_rate / *own - 1) > kSameRate) {
    Note(fmt::format("--bitrate: {} is not the stream's own rate, {} by the PCRs of PID {}",
                     FormatBitRate(*options_.bit_rate), FormatBitRate(*own), facts_.rate->pid));
  }
  if (facts_.rate && facts_.rate->IsVariable()) {
    const double bits = 8.0 * facts_.format.CountedBytes();
    Note(fmt::format("the stream's bit rate varies from {} to {}; it is played at a constant rate",
                     FormatBitRate(facts_.rate->lowest * bits),
                     FormatBitRate(facts_.rate->highest * bits)));
  }
  if (facts_.rate && facts_.rate->discontinuities > 0) {
    Note(fmt::format("the PCRs of PID {} jump {} times; the rate is that of the parts in between",
                     facts_.rate->pid, facts_.rate->discontinuities));
  }
  if (facts_.first_packet > 0) {
    Note(fmt::format("{} bytes in front of the first transport packet are left out",
                     facts_.first_packet));
  }
  if (facts_.trailing_bytes > 0) {
    Note(fmt::format("{} bytes behind the last whole transport packet are left out",
                     facts_.trailing_bytes));
  }
}

}  // namespace

Result<PlayPlan> MakePlan(const PlayOptions& options, const StreamFacts& facts, const Path& path) {
  return Planner(options, facts, path).Make();
}

}  // namespace ipplay
