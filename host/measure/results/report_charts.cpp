// SPDX-License-Identifier: MIT
#include "host/measure/results/report_charts.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "host/base/units.h"

namespace ipplay::measure {
namespace {

// Bars of the gap histogram; more of them only look ragged.
constexpr double kBarsWanted = 120;

std::string TimeText(double ns) {
  if (std::abs(ns) < 0.5) {
    return "0";
  }
  return FormatDuration(std::chrono::nanoseconds(std::llround(ns)));
}
std::string SecondsText(double seconds) {
  return fmt::format("{:.4g} s", seconds);
}
std::string RateText(double bits_per_second) {
  return bits_per_second > 0 ? FormatBitRate(bits_per_second) : "0";
}
std::string CountText(double count) {
  return FormatCount(static_cast<std::uint64_t>(std::max(0.0, count)));
}

constexpr ChartAxis kTimeAxis{AxisKind::kTight, SecondsText};

// Calls visit(seconds at the middle of the point, point).
template <typename Value, typename Visit>
void ForEachPoint(const TimeSeries<Value>& series, Visit visit) {
  for (std::size_t i = 0; i < series.Points().size(); ++i) {
    const double middle = (static_cast<double>(i) + 0.5) * static_cast<double>(series.IntervalNs());
    visit(middle * 1e-9, series.Points()[i]);
  }
}

Chart RateOverTime(const TimeSeries<ArrivalPoint>& arrivals) {
  Chart chart{
      "Rate over time", "bits of whole frames", kTimeAxis, {AxisKind::kFromZero, RateText}, {}};
  ChartSeries rate{"rate", SeriesStyle::kLine, {}};
  ForEachPoint(arrivals, [&](double at, const ArrivalPoint& point) {
    // Bits over the gaps before their frames: the interval's own length would alias with the gap.
    if (point.gap_sum_ns == 0) {
      return;
    }
    // The very first frame has no gap before it.
    const double share = rate.points.empty() ? 1 - 1 / static_cast<double>(point.frames) : 1;
    rate.points.push_back({at, share * static_cast<double>(point.bytes) * 8e9 /
                                   static_cast<double>(point.gap_sum_ns)});
  });
  chart.series.push_back(std::move(rate));
  return chart;
}

Chart GapsOverTime(const TimeSeries<ArrivalPoint>& arrivals) {
  Chart chart{
      "Gap over time",
      fmt::format("in intervals of {}", TimeText(static_cast<double>(arrivals.IntervalNs()))),
      kTimeAxis,
      {AxisKind::kLogarithmic, TimeText},
      {}};
  ChartSeries mean{"mean", SeriesStyle::kLine, {}};
  ChartSeries longest{"longest", SeriesStyle::kLine, {}};
  ForEachPoint(arrivals, [&](double at, const ArrivalPoint& point) {
    if (point.frames == 0) {
      return;
    }
    mean.points.push_back(
        {at, static_cast<double>(point.gap_sum_ns) / static_cast<double>(point.frames)});
    longest.points.push_back({at, static_cast<double>(point.gap_max_ns)});
  });
  chart.series = {std::move(mean), std::move(longest)};
  return chart;
}

Chart GapHistogram(const Spacing& spacing) {
  Chart chart{"Gaps between frames",
              "how many, both axes logarithmic",
              {AxisKind::kLogarithmic, TimeText},
              {AxisKind::kLogarithmic, CountText},
              {}};
  ChartSeries bars{"frames", SeriesStyle::kSteps, {}};
  const double octaves = std::log2((static_cast<double>(spacing.Gaps().Max()) + 1) /
                                   (static_cast<double>(spacing.Gaps().Min()) + 1));
  double per_octave = static_cast<double>(Histogram::kSubBuckets);
  while (per_octave > 8 && per_octave * octaves > kBarsWanted) {
    per_octave /= 2;
  }
  double bar = 0;
  for (const Histogram::Bucket& bucket : spacing.Gaps().Buckets()) {
    const double middle =
        std::max(1.0, (static_cast<double>(bucket.low) + static_cast<double>(bucket.high)) / 2);
    const double low = std::exp2(std::floor(std::log2(middle) * per_octave) / per_octave);
    const double high = low * std::exp2(1 / per_octave);
    const auto count = static_cast<double>(bucket.count);
    if (!bars.points.empty() && std::abs(bar - low) < low * 1e-6) {
      bars.points[bars.points.size() - 2].y += count;
      continue;
    }
    // Steps go flat from a point's height to the next point, so the gap in between needs two.
    bar = low;
    bars.points.push_back({low, count});
    bars.points.push_back({high, 0});
  }
  chart.series.push_back(std::move(bars));
  return chart;
}

Chart MdiOverTime(const TimeSeries<MdiPoint>& mdi) {
  Chart chart{"Delay factor over time",
              "RFC 4445, per second",
              kTimeAxis,
              {AxisKind::kFromZero, TimeText},
              {}};
  ChartSeries delay{"delay factor", SeriesStyle::kLine, {}};
  ForEachPoint(mdi, [&](double at, const MdiPoint& point) {
    delay.points.push_back({at, point.delay_factor_ns});
  });
  chart.series.push_back(std::move(delay));
  return chart;
}

Chart LossOverTime(const TimeSeries<MdiPoint>& mdi) {
  Chart chart{"Media loss rate over time",
              "RFC 4445, packets per second",
              kTimeAxis,
              {AxisKind::kCounts, CountText},
              {}};
  ChartSeries loss{"lost", SeriesStyle::kLine, {}};
  const double seconds = static_cast<double>(mdi.IntervalNs()) * 1e-9;
  ForEachPoint(mdi, [&](double at, const MdiPoint& point) {
    loss.points.push_back({at, static_cast<double>(point.lost_packets) / seconds});
  });
  chart.series.push_back(std::move(loss));
  return chart;
}

// `slope` is what each nanosecond of the clock arrives later by.
Chart PcrJitter(const TimeSeries<PcrPoint>& pcr, double slope, double offset_ppm) {
  Chart chart{"PCR arrival jitter",
              fmt::format("against the stream's own clock, {:+.2f} ppm taken off", offset_ppm),
              kTimeAxis,
              {AxisKind::kRound, TimeText},
              {}};
  ChartSeries band{"arrival", SeriesStyle::kBand, {}};
  ForEachPoint(pcr, [&](double at, const PcrPoint& point) {
    if (!point.any) {
      return;
    }
    const double drift = at * slope * 1e9;
    band.points.push_back({at, point.low_ns - drift});
    band.points.push_back({at, point.high_ns - drift});
  });
  double lowest = band.points.empty() ? 0 : band.points.front().y;
  for (const ChartPoint& point : band.points) {
    lowest = std::min(lowest, point.y);
  }
  for (ChartPoint& point : band.points) {
    point.y -= lowest;
  }
  chart.series.push_back(std::move(band));
  return chart;
}

}  // namespace

std::vector<Chart> TotalCharts(const Measurement& measurement) {
  return {RateOverTime(measurement.Arrivals()), GapsOverTime(measurement.Arrivals())};
}

std::vector<Chart> StreamCharts(const Stream& stream) {
  const StreamHistory& history = *stream.History();
  std::vector<Chart> charts{GapHistogram(stream.Gaps()), GapsOverTime(history.arrivals),
                            RateOverTime(history.arrivals), MdiOverTime(history.mdi),
                            LossOverTime(history.mdi)};
  const PcrTracker* clock = stream.Ts() != nullptr ? stream.Ts()->ReferenceClock() : nullptr;
  if (const auto offset = clock != nullptr ? clock->FrequencyOffsetPpm() : std::nullopt) {
    charts.push_back(PcrJitter(history.pcr, clock->ArrivalSlope(), *offset));
  }
  return charts;
}

}  // namespace ipplay::measure
