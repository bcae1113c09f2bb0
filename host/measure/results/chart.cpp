// SPDX-License-Identifier: MIT
#include "host/measure/results/chart.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace ipplay::measure {
namespace {

using Out = std::back_insert_iterator<std::string>;

constexpr double kWidth = 1000;
constexpr double kHeight = 300;
constexpr double kTicksWanted = 5;

// From values to a share of the axis, 0 to 1.
class Scale {
 public:
  Scale(double low, double high, AxisKind kind) : logarithmic_(kind == AxisKind::kLogarithmic) {
    if (logarithmic_) {
      low_ = std::log10(low) - kLogMargin;
      high_ = std::log10(high) + kLogMargin;
      return;
    }
    if (kind != AxisKind::kRound) {
      low = std::min(low, 0.0);
    }
    if (high <= low) {
      high = low + 1;
    }
    step_ = NiceStep((high - low) / kTicksWanted);
    if (kind == AxisKind::kCounts) {
      step_ = std::max(1.0, step_);
    }
    low_ = std::floor(low / step_) * step_;
    high_ = kind == AxisKind::kTight ? high : std::ceil(high / step_) * step_;
  }

  double Share(double value) const {
    const double v = logarithmic_ ? std::log10(std::max(value, 1e-12)) : value;
    return std::clamp((v - low_) / (high_ - low_), 0.0, 1.0);
  }

  std::vector<double> Ticks() const { return logarithmic_ ? LogTicks() : LinearTicks(); }

 private:
  static constexpr double kLogMargin = 0.15;

  static double NiceStep(double step) {
    const double decade = std::pow(10, std::floor(std::log10(step)));
    for (const double factor : {1.0, 2.0, 5.0}) {
      if (step <= factor * decade) {
        return factor * decade;
      }
    }
    return 10 * decade;
  }

  std::vector<double> LinearTicks() const {
    std::vector<double> ticks;
    for (int i = 0; low_ + i * step_ <= high_ + step_ / 1000; ++i) {
      ticks.push_back(low_ + i * step_);
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

Scale ScaleOf(const Chart& chart, double ChartPoint::*coordinate, const ChartAxis& axis) {
  double low = std::numeric_limits<double>::infinity();
  double high = -low;
  for (const ChartSeries& series : chart.series) {
    for (const ChartPoint& point : series.points) {
      if (axis.kind == AxisKind::kLogarithmic && point.*coordinate <= 0) {
        continue;
      }
      low = std::min(low, point.*coordinate);
      high = std::max(high, point.*coordinate);
    }
  }
  if (high < low) {
    low = high = 1;
  }
  return Scale(low, high, axis.kind);
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
                   "</div><svg viewBox=\"0 0 {} {}\" preserveAspectRatio=\"none\" role=\"img\" "
                   "aria-label=\"{}\"><path class=\"grid\" d=\"",
                   kWidth, kHeight, EscapeHtml(chart_.title));
    for (const double tick : y_.Ticks()) {
      fmt::format_to(out_, "M0 {:.1f}H{}", Y(tick), kWidth);
    }
    for (const double tick : x_.Ticks()) {
      fmt::format_to(out_, "M{:.1f} 0V{}", X(tick), kHeight);
    }
    fmt::format_to(out_, "\"/>");
    for (std::size_t i = 0; i < chart_.series.size(); ++i) {
      WriteSeries(chart_.series[i], i + 1);
    }
    fmt::format_to(out_, "</svg><div class=\"xs\">");
    for (const double tick : x_.Ticks()) {
      fmt::format_to(out_, "<span style=\"left:{:.2f}%\">{}</span>", x_.Share(tick) * 100,
                     chart_.x.text(tick));
    }
    fmt::format_to(out_, "</div></div>\n");
  }

 private:
  double X(double value) const { return x_.Share(value) * kWidth; }
  double Y(double value) const { return kHeight - y_.Share(value) * kHeight; }

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
    char command = 'M';
    for (const ChartPoint& p : series.points) {
      fmt::format_to(out_, "{}{:.1f} {:.1f}", command, X(p.x), Y(p.y));
      command = 'L';
    }
    // A single point shows as a dot of a round line end.
    if (series.points.size() == 1) {
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
    char command = 'M';
    for (std::size_t i = 1; i < series.points.size(); i += 2) {
      fmt::format_to(out_, "{}{:.1f} {:.1f}", command, X(series.points[i].x),
                     Y(series.points[i].y));
      command = 'L';
    }
    for (std::size_t i = series.points.size() / 2 * 2; i >= 2; i -= 2) {
      const ChartPoint& p = series.points[i - 2];
      fmt::format_to(out_, "L{:.1f} {:.1f}", X(p.x), Y(p.y));
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
  if (chart.series.size() > 1) {
    fmt::format_to(out, "<span class=\"legend\">");
    for (std::size_t i = 0; i < chart.series.size(); ++i) {
      fmt::format_to(out, "<i class=\"k{}\"></i>{} ", i + 1, EscapeHtml(chart.series[i].name));
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
