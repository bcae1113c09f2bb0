#include "host/measure/line_extent.h"

#include <algorithm>

namespace ipplay::measure {
namespace {

// Products of nanoseconds and counts leave 64 bits after minutes.
__extension__ using Wide = __int128;

template <typename Hull>
void DropEverySecond(Hull& hull) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < hull.size(); i += 2) hull[kept++] = hull[i];
  hull[kept - 1] = hull.back();
  hull.resize(kept);
}

}  // namespace

// One step of Andrew's monotone chain; kSide is 1 for the upper hull, -1 for the lower one.
template <int kSide>
void LineExtent::Extend(std::vector<Point>& hull, Point point) {
  while (hull.size() >= 2) {
    const Point& a = hull[hull.size() - 2];
    const Point& b = hull.back();
    const Wide turn = static_cast<Wide>(b.x - a.x) * (point.y - a.y) -
                      static_cast<Wide>(b.y - a.y) * (point.x - a.x);
    if (turn * kSide < 0) break;
    hull.pop_back();
  }
  hull.push_back(point);
  if (hull.size() > kMaxVertices) DropEverySecond(hull);
}

void LineExtent::Add(std::int64_t x, std::int64_t y) {
  Extend<1>(upper_, {x, y});
  Extend<-1>(lower_, {x, y});
}

void LineExtent::Clear() {
  upper_.clear();
  lower_.clear();
}

LineExtent::Range LineExtent::Deviation(double slope) const {
  Range range;
  if (IsEmpty()) return range;
  const Point origin = upper_.front();
  const auto distance = [&](const Point& p) {
    return static_cast<double>(p.y - origin.y) - slope * static_cast<double>(p.x - origin.x);
  };
  for (const Point& p : upper_) range.high = std::max(range.high, distance(p));
  for (const Point& p : lower_) range.low = std::min(range.low, distance(p));
  return range;
}

}  // namespace ipplay::measure
