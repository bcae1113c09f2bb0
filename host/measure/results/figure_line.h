// SPDX-License-Identifier: MIT
// A line of figures, on the terminal and on the page.
#pragma once

#include <string>

namespace ipplay::measure {

struct FigureLine {
  std::string name;
  std::string text;
};

}  // namespace ipplay::measure
