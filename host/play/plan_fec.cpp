// SPDX-License-Identifier: MIT
#include "host/play/plan_fec.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "host/base/header_lengths.h"
#include "host/play/given_option.h"
#include "host/play/plan_faults.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

constexpr std::uint32_t kColumnPort = 2;  // above that of the stream
constexpr std::uint32_t kRowPort = 4;
constexpr std::uint32_t kFecHeaderBytes = 16;
constexpr std::uint32_t kLastPort = 65535;

std::uint32_t HighestStep(const FecMatrixOrder& fec) {
  return fec.protects_rows ? kRowPort : kColumnPort;
}

std::optional<Failure> CheckDependents(const PlayOptions& options) {
  const GivenOption kOptions[] = {{"--fec-staggered", options.fec_staggered},
                                  {"--fec-payload-type", options.fec_payload_type.has_value()},
                                  {"--fec-ssrc", options.fec_ssrc.has_value()},
                                  {"--fec-lose", options.fec_lose.has_value()},
                                  {"--fec-delay", options.fec_delay.has_value()}};
  if (const auto option = FirstGiven(kOptions)) {
    return UsageFailure(fmt::format("{} needs --fec", *option));
  }
  return std::nullopt;
}

// FEC has 16 bytes more.
std::optional<Failure> CheckLength(const PlayOptions& options, const Sizes& sizes,
                                   const Adapter& adapter) {
  const std::uint32_t frame = sizes.frame_bytes + kFecHeaderBytes;
  const std::uint32_t packet = frame - kEthernetHeaderBytes - (options.vlan ? kVlanTagBytes : 0);
  const std::uint32_t largest =
      GetMaxIPMTU(options.to.address.is_v6 ? 1 : 0, sizes.dont_fragment ? 0 : 1);
  if (frame > largest || (adapter.mtu && packet > *adapter.mtu)) {
    return UsageFailure(fmt::format(
        "--fec makes IP packets of {} bytes, 16 more than the stream's, which is too long; give "
        "fewer with --ts-per-datagram or --frame-size",
        packet));
  }
  return std::nullopt;
}

}  // namespace

std::optional<Failure> CheckFec(const PlayOptions& options, const Sizes& sizes,
                                const Adapter& adapter) {
  if (!options.fec) {
    return CheckDependents(options);
  }
  if (!options.to.rtp) {
    return UsageFailure("--fec needs an rtp:// target");
  }
  const bool has_chance = (options.fec_lose && options.fec_lose->chance > 0) ||
                          (options.fec_delay && options.fec_delay->errors.chance > 0);
  if (has_chance) {
    return UsageFailure("--fec-lose and --fec-delay take no share in per cent; give N/RANGE");
  }
  const std::uint32_t last = kLastPort - HighestStep(*options.fec);
  const struct {
    const char* name;
    std::uint32_t port;
  } kPorts[] = {{"destination", options.dst_port.value_or(options.to.port)},
                {"source", options.src_port.value_or(options.to.port)}};
  for (const auto& [name, port] : kPorts) {
    if (port > last) {
      return UsageFailure(
          fmt::format("--fec: the {} port is {}, and FEC goes to the ports above it; "
                      "give one of up to {}",
                      name, port, last));
    }
  }
  return CheckLength(options, sizes, adapter);
}

void ApplyFec(const PlayOptions& options, IpPlayoutSettings& schedule) {
  if (!options.fec) {
    return;
  }
  constexpr std::uint32_t kUsualType = 96;
  schedule.FecColumns = options.fec->columns;
  schedule.FecRows = options.fec->rows;
  schedule.FecProtectsRows = options.fec->protects_rows ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  schedule.FecStaggered = options.fec_staggered ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  schedule.FecPayloadType = options.fec_payload_type.value_or(kUsualType);
  schedule.FecSSRC = options.fec_ssrc.value_or(0);
  schedule.CopiesShareTime = IPPLAYOUT_ON;  // one parity is that of every copy
  schedule.FecErrors = ErrorsAt(options.fec_lose, options.fec_delay, options.random);
}

std::string FecText(const PlayOptions& options) {
  if (!options.fec) {
    return {};
  }
  const std::uint32_t port = options.dst_port.value_or(options.to.port);
  return fmt::format(
      "{} x {}, columns to port {}{}", options.fec->columns, options.fec->rows, port + kColumnPort,
      options.fec->protects_rows ? fmt::format(", rows to port {}", port + kRowPort) : "");
}

}  // namespace ipplay
