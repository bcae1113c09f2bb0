// SPDX-License-Identifier: MIT
#include "host/play/plan_twin.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <random>

#include "host/play/given_option.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

std::optional<Failure> CheckDependents(const PlayOptions& options) {
  const bool orders_twin = std::any_of(options.time_line.begin(), options.time_line.end(),
                                       [](const auto& entry) { return entry.second.of_twin; });
  const GivenOption kOptions[] = {{"--twin-device", !options.twin_device.empty()},
                                  {"--twin-skew", options.twin_skew.has_value()},
                                  {"--twin-lose", options.twin_lose.has_value()},
                                  {"--twin-delay", options.twin_delay.has_value()},
                                  {"--twin-jitter", options.twin_jitter.has_value()},
                                  {"--at with twin-...", orders_twin}};
  if (const auto option = FirstGiven(kOptions)) {
    return UsageFailure(fmt::format("{} needs --twin", *option));
  }
  return std::nullopt;
}

// Of 53 bits, and not 0.
std::uint64_t OtherSeed(std::uint64_t seed) {
  return std::mt19937_64(seed)() % kMostSeed + 1;
}

void ShareNumbers(RTPHeaderSettings& rtp, std::mt19937_64& random) {
  if (rtp.RandomSequenceNumber == IPPLAYOUT_ON) {
    rtp.RandomSequenceNumber = IPPLAYOUT_OFF;
    rtp.SequenceNumber = static_cast<std::uint32_t>(random() & 0xFFFF);
  }
  if (rtp.RandomSSRC == IPPLAYOUT_ON) {
    rtp.RandomSSRC = IPPLAYOUT_OFF;
    rtp.SSRC = static_cast<std::uint32_t>(random());
  }
}

}  // namespace

std::optional<Failure> CheckTwin(const PlayOptions& options) {
  if (!options.twin) {
    return CheckDependents(options);
  }
  if (!options.also_to.empty() || options.start_at || options.wait_link ||
      !options.stream_faults.empty()) {
    return UsageFailure(
        "--twin excludes a second --to, --start-at, --wait-link and --ts-fault; leave it or the "
        "other out");
  }
  if (!options.to.rtp || !options.twin->rtp) {
    return UsageFailure("--twin needs rtp:// targets, its own and that of --to");
  }
  if (options.to.address.is_v6 != options.twin->address.is_v6) {
    return UsageFailure(fmt::format("--twin: the target of --to is IPv{}; give one of that version",
                                    options.to.address.is_v6 ? 6 : 4));
  }
  const bool is_same = options.to.address == options.twin->address &&
                       options.to.port == options.twin->port && options.twin_device.empty();
  if (is_same) {
    return UsageFailure(
        "--twin: the target is that of --to; give another address or port, or another adapter with "
        "--twin-device");
  }
  return std::nullopt;
}

PlayOptions TwinOptions(const PlayOptions& options, std::uint64_t seed) {
  PlayOptions twin = options;
  twin.to = *options.twin;
  twin.twin.reset();
  twin.device = options.twin_device;
  twin.src_ip.reset();
  twin.dst_ip.reset();
  twin.src_mac.reset();
  twin.dst_mac.reset();
  twin.src_port.reset();
  twin.dst_port.reset();
  twin.lose = options.twin_lose;
  twin.delay = options.twin_delay;
  twin.jitter = options.twin_jitter;
  twin.bad_ip_checksum.reset();
  twin.bad_udp_checksum.reset();
  twin.fec_lose.reset();
  twin.fec_delay.reset();
  twin.duplicate.reset();
  twin.corrupt.reset();
  twin.loss_model.reset();
  twin.closes_holes = false;
  const bool has_places =
      (twin.lose && twin.lose->range > 0) || (twin.delay && twin.delay->errors.range > 0);
  twin.random = options.random && has_places;
  twin.time_line.clear();
  twin.ledger.clear();
  twin.seed = OtherSeed(seed);
  return twin;
}

std::optional<Failure> MakeTwins(PlayPlan& plan, TwinPath& twin) {
  if (plan.lead || twin.plan.lead) {
    return UsageFailure(
        "--twin needs a file: a pipe or a live input has a clock of its own, which the two paths "
        "would follow differently");
  }
  if (plan.IsMarked() != twin.plan.IsMarked()) {
    return UsageFailure(
        "--jitter and --twin-jitter: the stream's rate varies, and with jitter on one path the two "
        "would differ; give --bitrate");
  }
  std::mt19937_64 random(plan.schedule.Seed);
  RTPHeaderSettings& rtp = plan.schedule.Params.ProtocolHeadersSettings.RTPHeaderSettings;
  ShareNumbers(rtp, random);
  for (IPPlayParams* params :
       {&plan.settings.params, &twin.plan.schedule.Params, &twin.plan.settings.params}) {
    params->ProtocolHeadersSettings.RTPHeaderSettings = rtp;
  }
  return std::nullopt;
}

}  // namespace ipplay
