// SPDX-License-Identifier: MIT
// Charts for the report: plain SVG for the marks, which stretches with the page, and HTML for the
// text around them, which keeps its size on a phone.
#pragma once

#include <string>
#include <vector>

namespace ipplay::measure {

struct ChartPoint {
  double x = 0;
  double y = 0;
};

enum class SeriesStyle {
  kLine,
  kSteps,  // filled down to the axis, flat from each point to the next
  kBand,   // filled between pairs of points: low and high at the same x
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
  kTight,        // linear, from 0 to the largest value
  kLogarithmic,  // a little wider than the values
};

struct ChartAxis {
  AxisKind kind = AxisKind::kFromZero;
  std::string (*text)(double value) = nullptr;  // of a tick
};

struct Chart {
  std::string title;
  std::string note;  // what it shows, in a line below the title
  ChartAxis x;
  ChartAxis y;
  std::vector<ChartSeries> series;  // at most four
};

// The chart as an HTML figure; a sentence in its place where there is nothing to draw.
std::string ChartHtml(const Chart& chart);

std::string EscapeHtml(const std::string& text);

}  // namespace ipplay::measure
