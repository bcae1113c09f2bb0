// SPDX-License-Identifier: MIT
// The least-squares line through points that come one by one.
#pragma once

namespace ipplay::measure {

// Running means and sums of products around them, which stay exact where plain sums of squares of
// large numbers would cancel out (Welford).
class LineFit {
 public:
  void Add(double x, double y) {
    count_ += 1;
    const double dx = x - mean_x_;
    mean_x_ += dx / count_;
    mean_y_ += (y - mean_y_) / count_;
    xx_ += dx * (x - mean_x_);
    xy_ += dx * (y - mean_y_);
  }
  void Clear() { *this = LineFit(); }

  double Count() const { return count_; }
  // Sums of the products of the deviations from the means; the line rises by Xy() / Xx().
  double Xx() const { return xx_; }
  double Xy() const { return xy_; }

 private:
  double count_ = 0;
  double mean_x_ = 0;
  double mean_y_ = 0;
  double xx_ = 0;
  double xy_ = 0;
};

}  // namespace ipplay::measure
