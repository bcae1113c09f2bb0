// SPDX-License-Identifier: MIT
#include "host/measure/results/report_charts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>

#include "host/base/units.h"
#include "host/measure/results/clock_text.h"

namespace ipplay::measure {
namespace {

// Bars of the gap histogram; more of them only look ragged.
constexpr double kBarsWanted = 120;
// Of a length in floating point that has to be reached.
constexpr double kAlmost = 1 - 1e-6;

std::string TimeText(double ns) {
  if (std::abs(ns) < 0.5) {
    return "0";
  }
  return FormatNanoseconds(ns);
}
std::string RateText(double bits_per_second) {
  return bits_per_second > 0 ? FormatBitRate(bits_per_second) : "0";
}
std::string CountText(double count) {
  return FormatCount(static_cast<std::uint64_t>(std::max(0.0, count)));
}

// The time axis of all plots: seconds since the midnight before the capture.
class TimeLine {
 public:
  explicit TimeLine(const Measurement& measurement)
      : midnight_ns_(MidnightNs(measurement.StartNs())),
        start_ns_(measurement.StartNs()),
        end_ns_(measurement.EndNs()) {}

  double At(std::int64_t time_ns) const {
    return static_cast<double>(time_ns - midnight_ns_) * 1e-9;
  }
  ChartAxis Axis() const {
    const auto text = [midnight_ns = midnight_ns_](double seconds) {
      return ShortClockText(midnight_ns + std::llround(seconds * 1e9));
    };
    return {AxisKind::kTime, text, {At(start_ns_), At(end_ns_)}};
  }
  // Where point `index` begins.
  template <typename Value>
  double BeginOf(const TimeSeries<Value>& series, std::size_t index) const {
    return At(series.StartNs() + static_cast<std::int64_t>(index) * series.IntervalNs());
  }
  // The middle of what point `index` has of the capture.
  template <typename Value>
  double MiddleOf(const TimeSeries<Value>& series, std::size_t index) const {
    const double end = std::min(BeginOf(series, index + 1), At(end_ns_));
    return (BeginOf(series, index) + end) / 2;
  }

 private:
  std::int64_t midnight_ns_;
  std::int64_t start_ns_;
  std::int64_t end_ns_;
};

// Where frames were missing: longer than an interval and than a few of the usual gaps.
std::vector<ChartSpan> OutagesOf(const TimeSeries<ArrivalPoint>& arrivals, const Spacing& spacing,
                                 const TimeLine& line) {
  constexpr double kUsualGaps = 4;
  const double shortest = std::max(static_cast<double>(arrivals.IntervalNs()),
                                   kUsualGaps * spacing.Gaps().Quantile(0.5)) *
                          1e-9;
  std::vector<ChartSpan> outages;
  double silent_since = line.Axis().range.from;
  const auto add = [&](double until) {
    if (until - silent_since >= shortest * kAlmost) {
      outages.push_back({silent_since, until});
    }
  };
  const std::size_t points = arrivals.Points().size();
  for (std::size_t i = 0; i < points; ++i) {
    if (arrivals.Points()[i].frames > 0) {
      add(line.BeginOf(arrivals, i));
      silent_since = line.BeginOf(arrivals, i + 1);
    }
  }
  add(line.Axis().range.to);
  return outages;
}

// Calls visit(time of the point, point, whether an outage is before it).
template <typename Value, typename Visit>
void ForEachPoint(const TimeSeries<Value>& series, const TimeLine& line,
                  std::span<const ChartSpan> outages, Visit visit) {
  std::size_t next = 0;
  for (std::size_t i = 0; i < series.Points().size(); ++i) {
    const double at = line.MiddleOf(series, i);
    const bool after_outage = next < outages.size() && outages[next].to <= at;
    while (next < outages.size() && outages[next].to <= at) {
      ++next;
    }
    visit(at, series.Points()[i], after_outage);
  }
}

Chart RateOverTime(const TimeSeries<ArrivalPoint>& arrivals, const TimeLine& line,
                   const std::vector<ChartSpan>& outages) {
  Chart chart{"Rate over time",
              "bits of whole frames",
              line.Axis(),
              {AxisKind::kFromZero, RateText, {}},
              {},
              outages};
  ChartSeries rate{"rate", SeriesStyle::kLine, {}};
  bool first = true;
  ForEachPoint(
      arrivals, line, outages, [&](double at, const ArrivalPoint& point, bool after_outage) {
        if (after_outage) {
          rate.points.push_back({at, ChartPoint::kBreak});
        }
        // Bits over the gaps before their frames: the interval's own length would alias with the
        // gap.
        auto frames = static_cast<double>(point.frames);
        double gaps_ns = point.gap_sum_ns;
        if (first && point.frames > 0) {
          frames -= 1;  // the very first frame has no gap before it
          first = false;
        } else if (after_outage) {
          frames -= 1;  // nor has this one any but the outage, which is drawn as one
          gaps_ns -= static_cast<double>(point.gap_max_ns);
        }
        if (frames > 0 && gaps_ns > 0) {
          rate.points.push_back({at, frames / static_cast<double>(point.frames) *
                                         static_cast<double>(point.bytes) * 8e9 / gaps_ns});
        }
      });
  chart.series.push_back(std::move(rate));
  return chart;
}

Chart GapsOverTime(const TimeSeries<ArrivalPoint>& arrivals, const TimeLine& line,
                   const std::vector<ChartSpan>& outages) {
  Chart chart{
      "Gap over time",
      fmt::format("in intervals of {}", TimeText(static_cast<double>(arrivals.IntervalNs()))),
      line.Axis(),
      {AxisKind::kLogarithmic, TimeText, {}},
      {},
      outages};
  ChartSeries mean{"mean", SeriesStyle::kLine, {}};
  ChartSeries longest{"longest", SeriesStyle::kLine, {}};
  bool first = true;
  ForEachPoint(arrivals, line, outages,
               [&](double at, const ArrivalPoint& point, bool after_outage) {
                 if (after_outage) {
                   mean.points.push_back({at, ChartPoint::kBreak});
                   longest.points.push_back({at, ChartPoint::kBreak});
                 }
                 // The very first frame has no gap before it.
                 const std::uint64_t gaps = point.frames - (first && point.frames > 0 ? 1 : 0);
                 first = first && point.frames == 0;
                 if (point.gap_sum_ns == 0) {
                   return;
                 }
                 mean.points.push_back({at, point.gap_sum_ns / static_cast<double>(gaps)});
                 longest.points.push_back({at, static_cast<double>(point.gap_max_ns)});
               });
  chart.series = {std::move(mean), std::move(longest)};
  return chart;
}

// Values that the axis of a histogram spans, and what it leaves out at both ends.
struct Shown {
  double low = 1;
  double high = 1;
  std::uint64_t below = 0;
  std::uint64_t above = 0;
};

Shown ShownOf(const Histogram& histogram) {
  constexpr double kTail = 0.001;
  Shown shown{std::max(1.0, histogram.Quantile(kTail) * (1 - Histogram::kRelativeError)),
              histogram.Quantile(1 - kTail) * (1 + Histogram::kRelativeError)};
  for (const Histogram::Bucket& bucket : histogram.Buckets()) {
    const double middle = (static_cast<double>(bucket.low) + static_cast<double>(bucket.high)) / 2;
    shown.below += middle < shown.low ? bucket.count : 0;
    shown.above += middle > shown.high ? bucket.count : 0;
  }
  return shown;
}

std::string HistogramNote(const Histogram& histogram, const Shown& shown) {
  std::string note = "how many, logarithmic";
  if (shown.below > 0) {
    note += fmt::format("; {} shorter, from {}", FormatCount(shown.below),
                        TimeText(static_cast<double>(histogram.Min())));
  }
  if (shown.above > 0) {
    note += fmt::format("; {} longer, up to {}", FormatCount(shown.above),
                        TimeText(static_cast<double>(histogram.Max())));
  }
  return note;
}

// The axis spans the data except the thousandth at each end, so that the spread of a steady stream
// shows beside a few late frames.
Chart HistogramChart(const char* title, const Histogram& histogram) {
  constexpr double kNarrow = 4;  // between the ends of a linear axis
  const Shown shown = ShownOf(histogram);
  const bool linear = shown.high < shown.low * kNarrow;
  Chart chart{title,
              HistogramNote(histogram, shown),
              {linear ? AxisKind::kRound : AxisKind::kLogarithmic, TimeText, {}},
              {AxisKind::kLogarithmic, CountText, {}},
              {}};
  ChartSeries bars{"frames", SeriesStyle::kSteps, {}};
  double per_octave = static_cast<double>(Histogram::kSubBuckets);
  while (per_octave > 8 && per_octave * std::log2(shown.high / shown.low) > kBarsWanted) {
    per_octave /= 2;
  }
  double bar = 0;
  for (const Histogram::Bucket& bucket : histogram.Buckets()) {
    const double middle =
        std::max(1.0, (static_cast<double>(bucket.low) + static_cast<double>(bucket.high)) / 2);
    if (middle < shown.low || middle > shown.high) {
      continue;
    }
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

Chart MdiOverTime(const TimeSeries<MdiPoint>& mdi, const TimeLine& line) {
  Chart chart{"Delay factor over time",
              "RFC 4445, per second",
              line.Axis(),
              {AxisKind::kFromZero, TimeText, {}},
              {}};
  ChartSeries delay{"delay factor", SeriesStyle::kLine, {}};
  ForEachPoint(mdi, line, {}, [&](double at, const MdiPoint& point, bool) {
    delay.points.push_back({at, point.delay_factor_ns});
  });
  chart.series.push_back(std::move(delay));
  return chart;
}

ChartSeries LossSeries(const char* name, const TimeSeries<MdiPoint>& mdi, const TimeLine& line) {
  ChartSeries loss{name, SeriesStyle::kLine, {}};
  const double seconds = static_cast<double>(mdi.IntervalNs()) * 1e-9;
  ForEachPoint(mdi, line, {}, [&](double at, const MdiPoint& point, bool) {
    loss.points.push_back({at, static_cast<double>(point.lost_packets) / seconds});
  });
  return loss;
}

Chart LossOverTime(const TimeSeries<MdiPoint>& mdi, const TimeLine& line) {
  Chart chart{"Media loss rate over time",
              "RFC 4445, packets per second",
              line.Axis(),
              {AxisKind::kCounts, CountText, {}},
              {}};
  chart.series.push_back(LossSeries("lost", mdi, line));
  return chart;
}

// Of what is lost only; between, nothing is.
Chart CorrectionOverTime(const TimeSeries<FecPoint>& fec, const TimeLine& line) {
  Chart chart{"Loss in front of forward error correction and behind it",
              "SMPTE ST 2022-1, datagrams per second",
              line.Axis(),
              {AxisKind::kCounts, CountText, {}},
              {}};
  ChartSeries lost{"in front", SeriesStyle::kLine, {{line.Axis().range.from, 0}}};
  ChartSeries unrepaired{"behind", SeriesStyle::kLine, {{line.Axis().range.from, 0}}};
  const auto add = [&](double at, const FecPoint& point) {
    const double seconds = static_cast<double>(fec.IntervalNs()) * 1e-9;
    lost.points.push_back({at, static_cast<double>(point.lost) / seconds});
    unrepaired.points.push_back({at, static_cast<double>(point.unrepaired) / seconds});
  };
  if (!fec.Points().empty()) {
    add(line.BeginOf(fec, 0), {});
    ForEachPoint(fec, line, {}, [&](double at, const FecPoint& point, bool) { add(at, point); });
  }
  add(line.Axis().range.to, {});
  chart.series = {std::move(lost), std::move(unrepaired)};
  return chart;
}

Chart PathsOverTime(const Measurement& measurement, const TwinPair& pair, const TimeLine& line) {
  Chart chart{"Loss of each path, and of both together",
              "RFC 4445, packets per second",
              line.Axis(),
              {AxisKind::kCounts, CountText, {}},
              {}};
  const auto add = [&](const char* name, const Stream& stream) {
    if (stream.History() != nullptr) {
      chart.series.push_back(LossSeries(name, stream.History()->mdi, line));
    }
  };
  add("first path", *measurement.Streams().Streams()[pair.Places()[0]]);
  add("second path", *measurement.Streams().Streams()[pair.Places()[1]]);
  add("together", pair.Combined());
  return chart;
}

Chart SkewOverTime(const TimeSeries<PcrPoint>& skew, const TimeLine& line) {
  Chart chart{"Skew of the second path",
              "behind the first one",
              line.Axis(),
              {AxisKind::kRound, TimeText, {}},
              {}};
  ChartSeries band{"skew", SeriesStyle::kBand, {}};
  ForEachPoint(skew, line, {}, [&](double at, const PcrPoint& point, bool) {
    if (point.any) {
      band.points.push_back({at, point.low_ns});
      band.points.push_back({at, point.high_ns});
    }
  });
  chart.series.push_back(std::move(band));
  return chart;
}

Chart PcrJitter(const TimeSeries<PcrPoint>& pcr, const TimeLine& line,
                const std::vector<ChartSpan>& outages, const PcrTracker& clock) {
  Chart chart{"PCR arrival jitter",
              fmt::format("against the stream's own clock, {:+.2f} ppm taken off",
                          clock.FrequencyOffsetPpm().value_or(0)),
              line.Axis(),
              {AxisKind::kRound, TimeText, {}},
              {},
              outages};
  ChartSeries band{"arrival", SeriesStyle::kBand, {}};
  double lowest = std::numeric_limits<double>::infinity();
  ForEachPoint(pcr, line, outages, [&](double at, const PcrPoint& point, bool after_outage) {
    if (after_outage) {
      band.points.insert(band.points.end(), 2, {at, ChartPoint::kBreak});
    }
    if (point.any) {
      const double drift = (at - line.At(pcr.StartNs())) * clock.ArrivalSlope() * 1e9;
      band.points.push_back({at, point.low_ns - drift});
      band.points.push_back({at, point.high_ns - drift});
      lowest = std::min(lowest, point.low_ns - drift);
    }
  });
  for (ChartPoint& point : band.points) {
    point.y -= lowest;
  }
  chart.series.push_back(std::move(band));
  return chart;
}

// Of one stream, in order of time.
std::vector<double> MarksOf(const Measurement& measurement, std::size_t stream,
                            const TimeLine& line) {
  std::vector<double> marks;
  for (const Event& event : measurement.Events().Kept()) {
    if (event.stream == stream) {
      marks.push_back(line.At(event.time_ns));
    }
  }
  return marks;
}

}  // namespace

std::vector<Chart> TotalCharts(const Measurement& measurement) {
  const TimeLine line(measurement);
  const auto outages = OutagesOf(measurement.Arrivals(), measurement.Gaps(), line);
  return {RateOverTime(measurement.Arrivals(), line, outages),
          GapsOverTime(measurement.Arrivals(), line, outages)};
}

std::vector<Chart> TwinCharts(const Measurement& measurement, std::size_t number) {
  const TwinPair& pair = *measurement.Streams().Twins()[number];
  const TimeLine line(measurement);
  std::vector<Chart> charts;
  if (pair.Combined().History() != nullptr) {
    charts.push_back(PathsOverTime(measurement, pair, line));
  }
  if (pair.SkewHistory() != nullptr) {
    charts.push_back(SkewOverTime(*pair.SkewHistory(), line));
  }
  return charts;
}

std::vector<Chart> StreamCharts(const Measurement& measurement, std::size_t number) {
  const Stream& stream = *measurement.Streams().Streams()[number];
  const StreamHistory& history = *stream.History();
  const TimeLine line(measurement);
  const auto outages = OutagesOf(history.arrivals, stream.Gaps(), line);
  std::vector<Chart> charts{RateOverTime(history.arrivals, line, outages),
                            GapsOverTime(history.arrivals, line, outages),
                            HistogramChart("Gaps between frames", stream.Gaps().Gaps()),
                            HistogramChart("Gap errors", stream.Gaps().GapErrors()),
                            MdiOverTime(history.mdi, line),
                            LossOverTime(history.mdi, line)};
  if (stream.Fec() != nullptr) {
    charts.push_back(CorrectionOverTime(history.fec, line));
  }
  const PcrTracker* clock = stream.Ts() != nullptr ? stream.Ts()->ReferenceClock() : nullptr;
  if (clock != nullptr && clock->FrequencyOffsetPpm()) {
    charts.push_back(PcrJitter(history.pcr, line, outages, *clock));
  }
  const auto marks = MarksOf(measurement, number, line);
  for (Chart& chart : charts) {
    if (chart.x.kind == AxisKind::kTime) {
      chart.marks = marks;
    }
  }
  return charts;
}

}  // namespace ipplay::measure
