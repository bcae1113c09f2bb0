// SPDX-License-Identifier: MIT
#include "host/measure/figures/line_extent.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace ipplay::measure {
namespace {

// Products of nanoseconds and counts leave 64 bits after minutes.
__extension__ using Wide = __int128;

// Twice the area of the triangle, positive where the way turns left at b.
template <typename Point>
Wide Turn(const Point& a, const Point& b, const Point& c) {
  return static_cast<Wide>(b.x - a.x) * (c.y - a.y) - static_cast<Wide>(b.y - a.y) * (c.x - a.x);
}

}  // namespace

// One step of Andrew's monotone chain; kSide is 1 for the upper hull, -1 for the lower one.
template <int kSide>
void LineExtent::Extend(std::vector<Point>& hull, Point point) {
  if (!hull.empty() && hull.back().x == point.x) {
    if (kSide * (point.y - hull.back().y) <= 0) {
      return;
    }
    hull.pop_back();
  }
  while (hull.size() >= 2 && Turn(hull[hull.size() - 2], hull.back(), point) * kSide >= 0) {
    hull.pop_back();
  }
  hull.push_back(point);
  if (hull.size() > kMaxVertices) {
    Thin(hull);
  }
}

// Drops up to half of the inner vertices: those that span the smallest triangles with their
// neighbours, but never two neighbours at once.
void LineExtent::Thin(std::vector<Point>& hull) {
  std::vector<Wide> areas;
  for (std::size_t i = 1; i + 1 < hull.size(); ++i) {
    const Wide turn = Turn(hull[i - 1], hull[i], hull[i + 1]);
    areas.push_back(turn < 0 ? -turn : turn);
  }
  std::vector<Wide> sorted = areas;
  const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
  std::nth_element(sorted.begin(), middle, sorted.end());
  std::size_t kept = 1;
  bool dropped = false;
  for (std::size_t i = 1; i + 1 < hull.size(); ++i) {
    dropped = !dropped && areas[i - 1] <= *middle;
    if (!dropped) {
      hull[kept++] = hull[i];
    }
  }
  hull[kept++] = hull.back();
  hull.resize(kept);
}

void LineExtent::Add(std::int64_t x, std::int64_t y) {
  if (IsEmpty()) {
    origin_ = {x, y};
  }
  Extend<1>(upper_, {x, y});
  Extend<-1>(lower_, {x, y});
}

void LineExtent::Clear() {
  upper_.clear();
  lower_.clear();
}

LineExtent::Range LineExtent::Deviation(double slope) const {
  Range range;
  if (IsEmpty()) {
    return range;
  }
  for (const Point& p : upper_) {
    range.high = std::max(range.high, Above(p, slope));
  }
  for (const Point& p : lower_) {
    range.low = std::min(range.low, Above(p, slope));
  }
  return range;
}

double LineExtent::Above(const Point& point, double slope) const {
  return static_cast<double>(point.y - origin_.y) -
         slope * static_cast<double>(point.x - origin_.x);
}

double LineExtent::SmallestSpread() const {
  // The width is convex over the slope, and grows with it where the point that touches the upper
  // line lies before the one that touches the lower.
  const auto below = [&](double slope) {
    const auto less = [&](const Point& a, const Point& b) {
      return Above(a, slope) < Above(b, slope);
    };
    return std::ranges::max_element(upper_, less)->x > std::ranges::min_element(lower_, less)->x;
  };
  double low = INFINITY;
  double high = -INFINITY;
  for (const auto* hull : {&upper_, &lower_}) {
    for (std::size_t i = 1; i < hull->size(); ++i) {
      const double slope = static_cast<double>((*hull)[i].y - (*hull)[i - 1].y) /
                           static_cast<double>((*hull)[i].x - (*hull)[i - 1].x);
      low = std::min(low, slope);
      high = std::max(high, slope);
    }
  }
  if (low > high) {
    return Deviation(0).Spread();  // no edge: all points stand above one another
  }
  for (int i = 0; i < 64 && low < high; ++i) {
    const double middle = low + (high - low) / 2;
    (below(middle) ? low : high) = middle;
  }
  return std::min(Deviation(low).Spread(), Deviation(high).Spread());
}

}  // namespace ipplay::measure
