// SPDX-License-Identifier: MIT
#include "host/play/plan_faults.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/play/given_option.h"

namespace ipplay {
namespace {

std::optional<Failure> CheckTimeLine(const PlayOptions& options) {
  const bool has_clock = options.into.empty();
  for (const auto& [time, action] : options.time_line) {
    if (action.kind == ActionKind::kDelay && !options.to.rtp) {
      return UsageFailure("--at: delay needs an rtp:// target");
    }
    if (action.kind == ActionKind::kBadIpChecksum && options.to.address.is_v6) {
      return UsageFailure(
          "--at: bad-ip-checksum needs an IPv4 target; IPv6 has no header checksum");
    }
    const bool holds = action.kind == ActionKind::kPause || action.kind == ActionKind::kResume;
    if (!has_clock && (holds || action.kind == ActionKind::kStop)) {
      return UsageFailure(fmt::format(
          "--at: {} needs a target on the network; a file is written at once, with the times at "
          "which frames would leave{}",
          holds ? "pause or resume" : "stop", holds ? "" : "; --duration ends it"));
    }
  }
  return std::nullopt;
}

// Places are those of so many in a range; a chance has none.
bool HasPlaces(const std::optional<ErrorSchedule>& schedule) {
  return schedule && schedule->chance == 0;
}

bool HasChance(const std::optional<ErrorSchedule>& schedule) {
  return schedule && schedule->chance > 0;
}

}  // namespace

std::optional<Failure> CheckFaults(const PlayOptions& options) {
  if (options.delay && !options.to.rtp) {
    return UsageFailure("--delay needs an rtp:// target");
  }
  if (options.bad_ip_checksum && options.to.address.is_v6) {
    return UsageFailure("--bad-ip-checksum needs an IPv4 target; IPv6 has no header checksum");
  }
  if (HasPlaces(options.bad_ip_checksum) && HasPlaces(options.bad_udp_checksum)) {
    return UsageFailure(
        "--bad-ip-checksum and --bad-udp-checksum exclude each other; give one, and order the "
        "other in per cent, with --at or keys");
  }
  if (HasChance(options.lose) && options.loss_model) {
    return UsageFailure(
        "--lose and --loss-model exclude each other in per cent; the fourth part of --loss-model "
        "is the loss while the stream is good");
  }
  const bool has_places =
      HasPlaces(options.lose) || (options.delay && HasPlaces(options.delay->errors)) ||
      HasPlaces(options.duplicate) || (options.corrupt && HasPlaces(options.corrupt->errors)) ||
      HasPlaces(options.bad_ip_checksum) || HasPlaces(options.bad_udp_checksum) ||
      options.fec_lose || options.fec_delay || HasPlaces(options.twin_lose) ||
      (options.twin_delay && HasPlaces(options.twin_delay->errors));
  if (options.random && !has_places) {
    return UsageFailure(
        "--random needs --lose, --delay, --duplicate, --corrupt, a --bad-...-checksum, or one of "
        "these with --fec- or --twin-, of N/RANGE; "
        "a share in per cent is at random anyway");
  }
  if (options.closes_holes && !options.lose && !options.loss_model && options.time_line.empty()) {
    return UsageFailure("--holes closed needs --lose, --loss-model or --at");
  }
  if (!options.stream_faults.empty() && options.raw) {
    return UsageFailure(
        "--ts-fault and --raw exclude each other: raw input has no packets; give one");
  }
  if (!options.stream_faults.empty() && !options.also_to.empty()) {
    return UsageFailure("--ts-fault is for one target; give one --to");
  }
  return CheckTimeLine(options);
}

std::optional<const char*> NeedsSchedule(const PlayOptions& options) {
  const GivenOption kOptions[] = {
      {"--lose in per cent", HasChance(options.lose)},
      {"--loss-model", options.loss_model.has_value()},
      {"--holes closed", options.closes_holes},
      {"--delay in per cent", options.delay && HasChance(options.delay->errors)},
      {"--duplicate", options.duplicate.has_value()},
      {"--corrupt", options.corrupt.has_value()},
      {"--bad-ip-checksum in per cent", HasChance(options.bad_ip_checksum)},
      {"--bad-udp-checksum in per cent", HasChance(options.bad_udp_checksum)},
  };
  if (const auto option = FirstGiven(kOptions)) {
    return option;
  }
  for (const auto& [time, action] : options.time_line) {
    const ActionKind kind = action.kind;
    if (kind == ActionKind::kDuplicate || kind == ActionKind::kCorrupt ||
        kind == ActionKind::kBreak || (kind == ActionKind::kDelay && action.amount > 1)) {
      return "--at with duplicate, corrupt, break or delay:D";
    }
  }
  return std::nullopt;
}

ErrorInsertion ErrorsAt(const std::optional<ErrorSchedule>& lose,
                        const std::optional<DelaySchedule>& delay, bool random) {
  ErrorInsertion errors{};
  if (HasPlaces(lose)) {
    errors.PacketLossEnabled = IPPLAYOUT_ON;
    errors.NumPacketLoss = lose->count;
    errors.PacketLossRange = lose->range;
  }
  if (delay && HasPlaces(delay->errors)) {
    errors.SequenceErrorEnabled = IPPLAYOUT_ON;
    errors.NumSequenceError = delay->errors.count;
    errors.SequenceErrorRange = delay->errors.range;
    errors.SequenceErrorDistance = delay->distance;
  }
  errors.RandomizeErrors = random ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  errors.ErrInsertionEnable = errors.PacketLossEnabled | errors.SequenceErrorEnabled;
  return errors;
}

ErrorInsertion ErrorsFor(const PlayOptions& options) {
  ErrorInsertion errors = ErrorsAt(options.lose, options.delay, options.random);
  const auto& checksum =
      HasPlaces(options.bad_ip_checksum) ? options.bad_ip_checksum : options.bad_udp_checksum;
  if (HasPlaces(checksum)) {
    errors.ChecksumErrorEnabled = IPPLAYOUT_ON;
    errors.ChecksumErrorType =
        HasPlaces(options.bad_ip_checksum) ? IPPLAYOUT_CHECKSUM_IP : IPPLAYOUT_CHECKSUM_UDP;
    errors.NumChecksumError = checksum->count;
    errors.ChecksumErrorRange = checksum->range;
    errors.ErrInsertionEnable = IPPLAYOUT_ON;
  }
  return errors;
}

IpPlayoutFaults FaultsFor(const PlayOptions& options, IpPlayoutFaults faults) {
  const auto chance = [](const std::optional<ErrorSchedule>& schedule) {
    return schedule ? schedule->chance : 0;
  };
  faults.Lose = chance(options.lose);
  if (options.loss_model) {
    faults.TurnsBad = options.loss_model->turns_bad;
    faults.TurnsGood = options.loss_model->turns_good;
    faults.LoseWhileBad = options.loss_model->lose_while_bad;
    faults.Lose = options.loss_model->lose_while_good;
  }
  constexpr std::uint32_t kFarthest = 1'000'000;
  if (options.delay && HasChance(options.delay->errors)) {
    faults.Delay = options.delay->errors.chance;
    faults.DelayDistance = std::min(options.delay->distance, kFarthest);
  }
  if (options.duplicate) {
    faults.Duplicate = options.duplicate->chance;
    faults.DuplicateCount = options.duplicate->count;
    faults.DuplicateRange = options.duplicate->range;
  }
  if (options.corrupt) {
    faults.Corrupt = options.corrupt->errors.chance;
    faults.CorruptBits = options.corrupt->bits;
    faults.CorruptCount = options.corrupt->errors.count;
    faults.CorruptRange = options.corrupt->errors.range;
  }
  faults.IpChecksum = chance(options.bad_ip_checksum);
  faults.UdpChecksum = chance(options.bad_udp_checksum);
  faults.ClosesHoles = options.closes_holes ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  return faults;
}

}  // namespace ipplay
