// SPDX-License-Identifier: MIT
// The table that is drawn over and over while a measurement runs.
#pragma once

#include <cstddef>
#include <string>

namespace ipplay::measure {

class LiveView {
 public:
  // On standard error, if that is a terminal; else nothing is ever shown.
  explicit LiveView(bool wanted);

  bool IsShown() const { return shown_; }
  std::size_t Columns() const;
  // Lines that fit on the screen.
  std::size_t Rows() const;
  // Draws `text`, whole lines, in place of what was drawn last. Empty text clears the place.
  void Draw(const std::string& text);

 private:
  bool shown_;
  std::size_t drawn_lines_ = 0;
};

}  // namespace ipplay::measure
