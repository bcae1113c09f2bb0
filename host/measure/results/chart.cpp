// SPDX-License-Identifier: MIT
#include "host/measure/results/chart.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <span>

namespace ipplay::measure {
namespace {

using Out = std::back_insert_iterator<std::string>;

constexpr double kWidth = 1000;
constexpr double kHeight = 300;
constexpr double kMarkHeight = 18;
constexpr double kTicksWanted = 5;
constexpr double kTimeTicksWanted = 4.4;  // times are long words
constexpr double kRounding = 1e-6;
// Labels closer than this to an end of the axis are drawn inwards.
constexpr double kEdge = 0.06;

// A step of 1, 2 or 5 of a decade that is not below `step`.
double NiceStep(double step) {
  const double decade = std::pow(10, std::floor(std::log10(step)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (step <= factor * decade * (1 + kRounding)) {
      return factor * decade;
    }
  }
  return 10 * decade;
}

// The same for seconds, in what a clock counts.
double NiceTimeStep(double step) {
  constexpr double kSteps[] = {1,   2,   5,    10,   15,   30,    60,    120,  300,
                               600, 900, 1800, 3600, 7200, 10800, 21600, 43200};
  constexpr double kDay = 86400;
  if (step <= 1) {
    return NiceStep(step);
  }
  const auto* found = std::ranges::lower_bound(kSteps, step);
  return found != std::end(kSteps) ? *found : std::ceil(step / kDay) * kDay;
}

// From values to a share of the axis, 0 to 1.
class Scale {
 public:
  Scale(double low, double high, AxisKind kind) : logarithmic_(kind == AxisKind::kLogarithmic) {
    if (logarithmic_) {
      low_ = std::log10(low) - kLogMargin;
      high_ = std::log10(high) + kLogMargin;
      return;
    }
    if (kind == AxisKind::kFromZero || kind == AxisKind::kCounts) {
      low = std::min(low, 0.0);
    }
    if (high <= low) {
      high = low + 1;
    }
    if (kind == AxisKind::kTime) {
      step_ = NiceTimeStep((high - low) / kTimeTicksWanted);
      low_ = low;
      high_ = high;
      return;
    }
    step_ = NiceStep((high - low) / kTicksWanted);
    if (kind == AxisKind::kCounts) {
      step_ = std::max(1.0, step_);
    }
    low_ = std::floor(low / step_) * step_;
    high_ = std::ceil(high / step_) * step_;
  }

  double Share(double value) const {
    const double v = logarithmic_ ? std::log10(std::max(value, 1e-12)) : value;
    return std::clamp((v - low_) / (high_ - low_), 0.0, 1.0);
  }

  std::vector<double> Ticks() const {
    if (!logarithmic_) {
      return Multiples(low_, high_, step_);
    }
    std::vector<double> ticks = LogTicks();
    if (ticks.size() < 3) {
      const double low = std::pow(10, low_);
      const double high = std::pow(10, high_);
      ticks = Multiples(low, high, NiceStep((high - low) / kTicksWanted));
    }
    return ticks;
  }

 private:
  static constexpr double kLogMargin = 0.1;

  static std::vector<double> Multiples(double low, double high, double step) {
    std::vector<double> ticks;
    const double first = std::ceil(low / step - kRounding);
    for (int i = 0; (first + i) * step <= high + step * kRounding; ++i) {
      ticks.push_back((first + i) * step);
    }
    return ticks;
  }

  // 1, 2 and 5 of each decade where there are few, decades where there are more.
  std::vector<double> LogTicks() const {
    std::vector<double> ticks;
    const double decades = high_ - low_;
    const int step = std::max(1, static_cast<int>(decades / 8));
    for (int decade = static_cast<int>(std::floor(low_)); decade <= high_; decade += step) {
      for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor > 1 && decades > 2.5) {
          break;
        }
        const double log = decade + std::log10(factor);
        if (log >= low_ && log <= high_) {
          ticks.push_back(factor * std::pow(10, decade));
        }
      }
    }
    return ticks;
  }

  bool logarithmic_;
  double low_ = 0;
  double high_ = 1;
  double step_ = 1;
};

// Least and largest value of the points that `takes` accepts; from above to below without any.
template <typename Takes>
ChartSpan Extent(const ChartSeries& series, double ChartPoint::*coordinate, Takes takes) {
  ChartSpan extent{std::numeric_limits<double>::infinity(),
                   -std::numeric_limits<double>::infinity()};
  for (const ChartPoint& point : series.points) {
    const double value = point.*coordinate;
    if (!std::isnan(point.y) && takes(value)) {
      extent = {std::min(extent.from, value), std::max(extent.to, value)};
    }
  }
  return extent;
}

Scale ScaleOf(const Chart& chart, double ChartPoint::*coordinate, const ChartAxis& axis) {
  if (axis.kind == AxisKind::kTime) {
    return Scale(axis.range.from, axis.range.to, axis.kind);
  }
  const bool logarithmic = axis.kind == AxisKind::kLogarithmic;
  double low = std::numeric_limits<double>::infinity();
  double high = -low;
  for (const ChartSeries& series : chart.series) {
    const ChartSpan extent =
        Extent(series, coordinate, [&](double value) { return !logarithmic || value > 0; });
    low = std::min(low, extent.from);
    high = std::max(high, extent.to);
  }
  if (high < low) {
    low = high = 1;
  }
  return Scale(low, high, axis.kind);
}

std::string Plural(std::size_t count, const char* what) {
  return fmt::format("; {} {}{}", count, what, count == 1 ? "" : "s");
}

// The plot in words, for readers who cannot see it.
std::string TextSummary(const Chart& chart) {
  std::string text = fmt::format("{}, {}", chart.title, chart.note);
  for (const ChartSeries& series : chart.series) {
    const bool bars = series.style == SeriesStyle::kSteps;
    const ChartSpan extent =
        Extent(series, bars ? &ChartPoint::x : &ChartPoint::y, [](double) { return true; });
    if (extent.from <= extent.to) {
      const auto& words = bars ? chart.x.text : chart.y.text;
      text += fmt::format("; {} from {} to {}", series.name, words(extent.from), words(extent.to));
    }
  }
  if (chart.x.kind == AxisKind::kTime) {
    text += Plural(chart.outages.size(), "outage") + Plural(chart.marks.size(), "event");
  }
  return text;
}

class Plot {
 public:
  Plot(const Chart& chart, Out out)
      : chart_(chart),
        out_(out),
        x_(ScaleOf(chart, &ChartPoint::x, chart.x)),
        y_(ScaleOf(chart, &ChartPoint::y, chart.y)) {}

  void Write() {
    fmt::format_to(out_, "<div class=\"plot\"><div class=\"ys\">");
    for (const double tick : y_.Ticks()) {
      fmt::format_to(out_, "<span style=\"top:{:.2f}%\">{}</span>", 100 - y_.Share(tick) * 100,
                     chart_.y.text(tick));
    }
    fmt::format_to(out_,
                   "</div><svg viewBox=\"0 0 {0} {1}\" preserveAspectRatio=\"none\" role=\"img\" "
                   "aria-label=\"{2}\"><title>{3}</title><desc>{2}</desc><path class=\"grid\" d=\"",
                   kWidth, kHeight, EscapeHtml(TextSummary(chart_)), EscapeHtml(chart_.title));
    for (const double tick : y_.Ticks()) {
      fmt::format_to(out_, "M0 {:.1f}H{}", Y(tick), kWidth);
    }
    for (const double tick : x_.Ticks()) {
      fmt::format_to(out_, "M{:.1f} 0V{}", X(tick), kHeight);
    }
    fmt::format_to(out_, "\"/>");
    WriteOutages();
    for (std::size_t i = 0; i < chart_.series.size(); ++i) {
      WriteSeries(chart_.series[i], i + 1);
    }
    WriteMarks();
    fmt::format_to(out_, "</svg><div class=\"xs\">");
    for (const double tick : x_.Ticks()) {
      const double share = x_.Share(tick);
      const char* edge = share < kEdge       ? " class=\"first\""
                         : share > 1 - kEdge ? " class=\"last\""
                                             : "";
      fmt::format_to(out_, "<span{} style=\"left:{:.2f}%\">{}</span>", edge, share * 100,
                     chart_.x.text(tick));
    }
    fmt::format_to(out_, "</div></div>\n");
  }

 private:
  double X(double value) const { return x_.Share(value) * kWidth; }
  double Y(double value) const { return kHeight - y_.Share(value) * kHeight; }

  void WriteOutages() {
    if (chart_.outages.empty()) {
      return;
    }
    fmt::format_to(out_, "<path class=\"out\" d=\"");
    for (const ChartSpan& outage : chart_.outages) {
      fmt::format_to(out_, "M{:.1f} 0H{:.1f}V{}H{:.1f}Z", X(outage.from), X(outage.to), kHeight,
                     X(outage.from));
    }
    fmt::format_to(out_, "\"/>");
  }

  // Strokes from the lower edge, one where several would cover each other.
  void WriteMarks() {
    if (chart_.marks.empty()) {
      return;
    }
    fmt::format_to(out_, "<path class=\"ev\" d=\"");
    double last = -1;
    for (const double mark : chart_.marks) {
      const double x = std::round(X(mark));
      if (x != last) {
        fmt::format_to(out_, "M{:.0f} {}v-{}", x, kHeight, kMarkHeight);
      }
      last = x;
    }
    fmt::format_to(out_, "\"/>");
  }

  void WriteSeries(const ChartSeries& series, std::size_t number) {
    if (series.points.empty()) {
      return;
    }
    const bool filled = series.style != SeriesStyle::kLine;
    fmt::format_to(out_, "<path class=\"{}{}\" d=\"", filled ? "f" : "l", number);
    switch (series.style) {
      case SeriesStyle::kLine:
        WriteLine(series);
        break;
      case SeriesStyle::kSteps:
        WriteSteps(series);
        break;
      case SeriesStyle::kBand:
        WriteBand(series);
        break;
    }
    fmt::format_to(out_, "\"/>");
  }

  void WriteLine(const ChartSeries& series) {
    std::size_t run = 0;
    for (const ChartPoint& p : series.points) {
      if (std::isnan(p.y)) {
        EndRun(run);
        run = 0;
        continue;
      }
      fmt::format_to(out_, "{}{:.1f} {:.1f}", run++ == 0 ? 'M' : 'L', X(p.x), Y(p.y));
    }
    EndRun(run);
  }
  // A single point shows as a dot of a round line end.
  void EndRun(std::size_t points) {
    if (points == 1) {
      fmt::format_to(out_, "h0.1");
    }
  }

  void WriteSteps(const ChartSeries& series) {
    fmt::format_to(out_, "M{:.1f} {}", X(series.points.front().x), kHeight);
    for (const ChartPoint& p : series.points) {
      fmt::format_to(out_, "H{:.1f}V{:.1f}", X(p.x), Y(p.y));
    }
    fmt::format_to(out_, "V{}Z", kHeight);
  }

  void WriteBand(const ChartSeries& series) {
    const std::span<const ChartPoint> points(series.points);
    std::size_t begin = 0;
    for (std::size_t i = 0; i + 1 < points.size() + 2; i += 2) {
      if (i + 1 >= points.size() || std::isnan(points[i].y)) {
        WriteBandRun(points.subspan(begin, i - begin));
        begin = i + 2;
      }
    }
  }
  void WriteBandRun(std::span<const ChartPoint> points) {
    if (points.empty()) {
      return;
    }
    char command = 'M';
    for (std::size_t i = 1; i < points.size(); i += 2) {
      fmt::format_to(out_, "{}{:.1f} {:.1f}", command, X(points[i].x), Y(points[i].y));
      command = 'L';
    }
    for (std::size_t i = points.size(); i >= 2; i -= 2) {
      fmt::format_to(out_, "L{:.1f} {:.1f}", X(points[i - 2].x), Y(points[i - 2].y));
    }
    fmt::format_to(out_, "Z");
  }

  const Chart& chart_;
  Out out_;
  Scale x_;
  Scale y_;
};

}  // namespace

std::string ChartHtml(const Chart& chart) {
  std::string html;
  const Out out(html);
  fmt::format_to(out, "<figure><figcaption><b>{}</b> <span>{}</span>", EscapeHtml(chart.title),
                 EscapeHtml(chart.note));
  const bool has_lines = chart.series.size() > 1;
  if (has_lines || !chart.outages.empty() || !chart.marks.empty()) {
    fmt::format_to(out, "<span class=\"legend\">");
    for (std::size_t i = 0; has_lines && i < chart.series.size(); ++i) {
      fmt::format_to(out, "<i class=\"k{}\"></i>{} ", i + 1, EscapeHtml(chart.series[i].name));
    }
    if (!chart.outages.empty()) {
      fmt::format_to(out, "<i class=\"kout\"></i>no frames ");
    }
    if (!chart.marks.empty()) {
      fmt::format_to(out, "<i class=\"kev\"></i>events ");
    }
    fmt::format_to(out, "</span>");
  }
  fmt::format_to(out, "</figcaption>\n");
  const bool any =
      std::ranges::any_of(chart.series, [](const auto& series) { return !series.points.empty(); });
  if (any) {
    Plot(chart, out).Write();
  } else {
    fmt::format_to(out, "<p class=\"empty\">Nothing to show.</p>");
  }
  fmt::format_to(out, "</figure>\n");
  return html;
}

std::string EscapeHtml(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

}  // namespace ipplay::measure
