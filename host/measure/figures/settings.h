// SPDX-License-Identifier: MIT
// What to measure, as given on the command line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "host/measure/figures/payload_compare.h"
#include "host/measure/figures/reorder_window.h"

namespace ipplay::measure {

enum class RtpMode { kGuess, kAlways, kNever };

struct MeasurementSettings {
  RtpMode rtp = RtpMode::kGuess;
  std::uint64_t rtp_clock_rate = 90'000;
  ReorderLimits reorder{};
  std::optional<double> expected_rate{};  // bits per second of one stream, whole frames
  std::optional<double> media_rate{};     // bits per second of one stream's payload, for RFC 4445
  std::optional<std::int64_t> clump_gap_ns{};
  bool check_udp = true;
  bool analyse_ts = true;
  std::shared_ptr<ExpectedContent> expected{};  // null: payload is not compared
  std::size_t max_streams = 20'000;
  // Beyond this, detail is given up. Half of it is for the figures, half for the results.
  std::uint64_t memory_bytes = std::uint64_t{512} << 20;
  // The measurement ends after this number of UDP frames, or this long after the first one.
  std::optional<std::uint64_t> max_frames{};
  std::optional<std::int64_t> max_duration_ns{};
  // A longer IP packet was joined by the kernel: the adapter's MTU, or what no Ethernet carries.
  std::size_t longest_ip_packet = 9216;
  std::size_t plotted_streams = 256;  // how many keep a history, of at most 50 KiB
};

}  // namespace ipplay::measure
