// SPDX-License-Identifier: MIT
#include "host/play/plan_rates.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "host/base/units.h"
#include "host/play/plan_capture.h"
#include "ipplayout/limits.h"

namespace ipplay {
namespace {

using std::chrono::nanoseconds;

constexpr std::uint64_t kLargestBatchBytes = 256 * std::uint64_t{1024} * 1024;

// IPBitRate counts whole frames: the stream's rate grows by what headers add to each payload, and
// by the four bytes in front of each packet of time-stamped input.
std::optional<Failure> SetBitRates(const PlayOptions& options, const StreamFacts& facts,
                                   PacketFormat format, const Sizes& sizes, Rates& rates) {
  const double packet_share =
      format.IsRaw() ? 1 : static_cast<double>(format.packet_bytes) / format.CountedBytes();
  const double frame_share = packet_share * sizes.frame_bytes /
                             static_cast<double>(sizes.payload_bytes) * rates.share_sent;
  const double speed = SpeedOf(options);
  if (options.frame_bit_rate) {
    rates.frame = *options.frame_bit_rate * speed;
    rates.stream = rates.frame / frame_share;
    return std::nullopt;
  }
  auto rate = options.bit_rate ? options.bit_rate : facts.BitRate(format);
  if (options.by_arrival) {
    rate = *CapturedPacketRate(facts) * 8 * format.CountedBytes();
  }
  if (!rate && options.pcr_pid) {
    return UsageFailure("--pcr-pid: INPUT has no PCRs there; give a PID with PCRs, or --bitrate");
  }
  if (!rate) {
    return UsageFailure("--bitrate is required: INPUT has no PCRs to take its rate from");
  }
  rates.stream = *rate * speed;
  rates.frame = rates.stream * frame_share;
  return std::nullopt;
}

// The library counts the frames of all copies in a burst, --burst those of each.
std::uint64_t BatchFor(const PlayOptions& options, const Sizes& sizes, double frame_rate) {
  if (!options.burst) {
    const ParametricSettings shape = ShapeFor(options, 0);
    return IPPlayoutBatchFrames(&shape, options.copies * frame_rate);
  }
  const double by_time = options.burst->milliseconds * frame_rate / (sizes.frame_bytes * 8000.0);
  const std::uint64_t datagrams = options.burst->by_time
                                      ? static_cast<std::uint64_t>(std::min(by_time, 4e9))
                                      : options.burst->datagrams;
  return std::max<std::uint64_t>(datagrams, 1) * options.copies;
}

std::optional<Failure> SetBatchAndGap(const PlayOptions& options, const Sizes& sizes,
                                      Rates& rates) {
  rates.batch = BatchFor(options, sizes, rates.frame);
  const double frames_per_second = rates.frame * options.copies / (sizes.frame_bytes * 8.0);
  rates.gap = nanoseconds(std::llround(std::min(1e9 / frames_per_second, 9e18)));
  const std::uint64_t most =
      kLargestBatchBytes / (sizes.frame_bytes + IPPLAYOUT_QUEUE_BYTES_PER_FRAME);
  if (rates.batch > most) {
    return UsageFailure(
        fmt::format("--burst: {} frames at a time are too many; give at most {} of "
                    "this size, all copies counted",
                    rates.batch, most));
  }
  return std::nullopt;
}

// The RTP clock advances by IPPacketSize bytes at IPBitRate for every frame, copies included. So
// IPPacketSize is the frame's size, divided among the copies and lowered by the share that is lost.
// It holds whole bytes, and has no other use where the payload is given as a number of packets.
std::optional<Failure> SetRtpClock(const PlayOptions& options, const Sizes& sizes, Rates& rates) {
  rates.rtp_step_bytes = sizes.frame_bytes;
  if (!options.to.rtp) {
    return std::nullopt;
  }
  if (rates.frame < 1 || rates.frame >= 4294967296.0) {
    return UsageFailure(fmt::format(
        "{}: frames at {} are out of range: the RTP clock counts 1 bit/s to 4.29 "
        "Gbit/s per stream; give a rate within, or a udp:// target",
        options.frame_bit_rate ? "--frame-bitrate" : "--bitrate", FormatBitRate(rates.frame)));
  }
  const double right_step = sizes.frame_bytes * rates.share_sent;
  if (!sizes.to_the_byte) {
    rates.rtp_step_bytes =
        static_cast<std::uint32_t>(std::max(1.0, std::round(right_step / options.copies)));
  }
  const double step = static_cast<double>(rates.rtp_step_bytes) * options.copies;
  rates.rtp_clock_ratio = step / right_step * rates.frame / std::trunc(rates.frame);
  return std::nullopt;
}

// A rate within the tolerance of a stream's clock (ISO/IEC 13818-1, 2.4.2.1) is its own.
std::optional<Failure> SetFill(const PlayOptions& options, const StreamFacts& facts,
                               PacketFormat format, Rates& rates) {
  constexpr double kTolerance = 30e-6;
  const auto own = facts.BitRate(format);
  if (!own || (!options.bit_rate && !options.frame_bit_rate)) {
    return std::nullopt;
  }
  const double rate = rates.stream / SpeedOf(options);
  if (facts.list.empty() && !facts.rate->IsVariable() && std::abs(rate / *own - 1) <= kTolerance) {
    return std::nullopt;
  }
  const double least = *own * (1 - facts.null_share);
  if (facts.bytes && rate < least) {
    return UsageFailure(fmt::format(
        "{}: too little: without its null packets INPUT has {} of stream; give that or more, or "
        "--speed to play it slower",
        options.bit_rate ? "--bitrate" : "--frame-bitrate", FormatBitRate(least)));
  }
  const double bits = 8.0 * format.CountedBytes();
  rates.fill = FillPlan{facts.rate->pid, facts.rate->packets_per_second, rate / bits};
  return std::nullopt;
}

}  // namespace

double SpeedOf(const PlayOptions& options) {
  return options.speed * (1 + options.ppm / 1e6);
}

nanoseconds ReadAhead(const PlayOptions& options, bool live) {
  constexpr nanoseconds kOfPipe = std::chrono::seconds(2);
  constexpr nanoseconds kOfLive = std::chrono::milliseconds(200);
  return live ? options.prefill.value_or(kOfLive)
              : kOfPipe + options.prefill.value_or(nanoseconds(0));
}

double Rates::PayloadBytesPerSecond(const Sizes& sizes) const {
  return frame / share_sent / 8 * sizes.payload_bytes / sizes.frame_bytes;
}

Result<Rates> PlanRates(const PlayOptions& options, const StreamFacts& facts, PacketFormat format,
                        const Sizes& sizes) {
  if (options.bit_rate && options.frame_bit_rate) {
    return UsageFailure("--bitrate and --frame-bitrate exclude each other; give one");
  }
  Rates rates;
  // A lost datagram takes no time in the library: the next one leaves in its place. The frames that
  // remain are slowed down by the same share, so that the stream keeps its own time.
  if (options.lose && options.lose->chance == 0 && options.lose->count < options.lose->range) {
    rates.share_sent = 1 - static_cast<double>(options.lose->count) / options.lose->range;
  }
  if (auto failure = SetBitRates(options, facts, format, sizes, rates)) {
    return *std::move(failure);
  }
  if (auto failure = SetFill(options, facts, format, rates)) {
    return *std::move(failure);
  }
  if (auto failure = SetBatchAndGap(options, sizes, rates)) {
    return *std::move(failure);
  }
  if (auto failure = SetRtpClock(options, sizes, rates)) {
    return *std::move(failure);
  }
  return rates;
}

ParametricSettings ShapeFor(const PlayOptions& options, std::uint64_t batch) {
  ParametricSettings shape{};
  if (options.jitter) {
    shape.JitterEnabled = IPPLAYOUT_ON;
    shape.JitterPeriod = options.jitter->amount;
    shape.JitterDistributionType = options.jitter->distribution;
  }
  if (options.burst) {
    shape.BurstMode = IPPLAYOUT_ON;
    shape.BurstValueType = IPPLAYOUT_BURST_BY_SIZE;
    shape.BurstSize = static_cast<std::uint32_t>(batch);
  }
  return shape;
}

}  // namespace ipplay
