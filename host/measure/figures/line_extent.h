// SPDX-License-Identifier: MIT
// How far a series of points strays from a straight line whose slope is known only afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ipplay::measure {

// Keeps the convex hull of the points, which is all that the largest and the smallest distance
// from a line of any slope depend on. A hull of noisy points stays small; beyond kMaxVertices it is
// smooth, and those vertices are dropped that stand out least.
class LineExtent {
 public:
  static constexpr std::size_t kMaxVertices = 256;

  struct Range {
    double low = 0;
    double high = 0;
    double Spread() const { return high - low; }
  };

  // `x` must not be less than the one before.
  void Add(std::int64_t x, std::int64_t y);
  void Clear();
  bool IsEmpty() const { return upper_.empty(); }

  // Smallest and largest y - y0 - slope * (x - x0) over all points, (x0, y0) being the first one.
  Range Deviation(double slope) const;
  // Width of the narrowest band, upright, between two parallel lines that holds all points.
  double SmallestSpread() const;

 private:
  struct Point {
    std::int64_t x;
    std::int64_t y;
  };

  template <int kSide>
  static void Extend(std::vector<Point>& hull, Point point);
  static void Thin(std::vector<Point>& hull);
  double Above(const Point& point, double slope) const;

  Point origin_{};
  std::vector<Point> upper_;
  std::vector<Point> lower_;
};

}  // namespace ipplay::measure
