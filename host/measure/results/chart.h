// SPDX-License-Identifier: MIT
// Charts for the report: plain SVG for the marks, which stretches with the page, and HTML for the
// text around them, which keeps its size on a phone.
#pragma once

#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace ipplay::measure {

struct ChartPoint {
  // In place of a value where there is none: lines and bands break.
  static constexpr double kBreak = std::numeric_limits<double>::quiet_NaN();

  double x = 0;
  double y = 0;
};

struct ChartSpan {
  double from = 0;
  double to = 0;
};

enum class SeriesStyle {
  kLine,
  kSteps,  // filled down to the axis, flat from each point to the next
  kBand,   // filled between pairs of points: low and high at the same x; a break is a pair, too
};

struct ChartSeries {
  std::string name;
  SeriesStyle style = SeriesStyle::kLine;
  std::vector<ChartPoint> points;  // rising x
};

enum class AxisKind {
  kFromZero,     // linear, from 0 to a round number
  kCounts,       // the same, with whole numbers at its ticks
  kRound,        // linear, between round numbers
  kTime,         // linear, over ChartAxis::range, with ticks at whole seconds, minutes or hours
  kLogarithmic,  // a little wider than the values
};

struct ChartAxis {
  AxisKind kind = AxisKind::kFromZero;
  std::function<std::string(double value)> text;  // of a tick
  ChartSpan range;                                // of kTime
};

struct Chart {
  std::string title;
  std::string note;  // what it shows, in a line below the title
  ChartAxis x;
  ChartAxis y;
  std::vector<ChartSeries> series;   // at most four
  std::vector<ChartSpan> outages{};  // shaded
  std::vector<double> marks{};       // where an event was
};

// The chart as an HTML figure; a sentence in its place where there is nothing to draw.
std::string ChartHtml(const Chart& chart);

std::string EscapeHtml(const std::string& text);

}  // namespace ipplay::measure
