// SPDX-License-Identifier: MIT
// The data that the plots are drawn from.
#pragma once

#include <algorithm>
#include <cstdint>

#include "host/measure/figures/time_series.h"

namespace ipplay::measure {

struct ArrivalPoint {
  std::uint64_t frames = 0;
  std::uint64_t bytes = 0;
  double gap_sum_ns = 0;  // times that go back and forth add up beyond 64 bits
  std::int64_t gap_max_ns = 0;

  void Add(std::uint32_t frame_bytes, std::int64_t gap_ns) {
    ++frames;
    bytes += frame_bytes;
    gap_sum_ns += static_cast<double>(gap_ns);
    gap_max_ns = std::max(gap_max_ns, gap_ns);
  }
  void Merge(const ArrivalPoint& later) {
    frames += later.frames;
    bytes += later.bytes;
    gap_sum_ns += later.gap_sum_ns;
    gap_max_ns = std::max(gap_max_ns, later.gap_max_ns);
  }
};

struct MdiPoint {
  double delay_factor_ns = 0;  // largest
  std::uint64_t lost_packets = 0;

  void Add(double delay_factor, std::uint64_t lost) {
    delay_factor_ns = std::max(delay_factor_ns, delay_factor);
    lost_packets += lost;
  }
  void Merge(const MdiPoint& later) { Add(later.delay_factor_ns, later.lost_packets); }
};

// Arrival of PCRs against their own clock, frequency offset included.
struct PcrPoint {
  bool any = false;
  double low_ns = 0;
  double high_ns = 0;

  void Add(double offset_ns) { Merge({true, offset_ns, offset_ns}); }
  void Merge(const PcrPoint& later) {
    if (!later.any) {
      return;
    }
    low_ns = any ? std::min(low_ns, later.low_ns) : later.low_ns;
    high_ns = any ? std::max(high_ns, later.high_ns) : later.high_ns;
    any = true;
  }
};

// Lost datagrams, in front of forward error correction and behind it.
struct FecPoint {
  std::uint64_t lost = 0;
  std::uint64_t unrepaired = 0;

  void Merge(const FecPoint& later) {
    lost += later.lost;
    unrepaired += later.unrepaired;
  }
};

inline constexpr std::int64_t kPlotIntervalNs = 100'000'000;
// Of captures of less than a second.
inline constexpr std::int64_t kFinestPlotIntervalNs = kPlotIntervalNs / 64;

struct StreamHistory {
  TimeSeries<ArrivalPoint> arrivals{kPlotIntervalNs, kFinestPlotIntervalNs};
  TimeSeries<MdiPoint> mdi{1'000'000'000};
  TimeSeries<FecPoint> fec{1'000'000'000};
  TimeSeries<PcrPoint> pcr{kPlotIntervalNs, kFinestPlotIntervalNs};
};

}  // namespace ipplay::measure
