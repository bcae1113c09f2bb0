// SPDX-License-Identifier: MIT
#include "host/measure/results/live_view.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "host/base/library_output.h"
#include "host/base/terminal.h"

namespace ipplay::measure {
namespace {

// A line that the screen breaks would be one more than are counted.
std::string CutLines(std::string_view text, std::size_t columns) {
  std::string cut;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    cut.append(line.substr(0, columns)).push_back('\n');
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return cut;
}

}  // namespace

LiveView::LiveView(bool wanted) : shown_(wanted && ::isatty(STDERR_FILENO) == 1) {}

std::size_t LiveView::Columns() const {
  return SizeOfScreen(STDERR_FILENO).columns;
}

std::size_t LiveView::Rows() const {
  return SizeOfScreen(STDERR_FILENO).rows;
}

void LiveView::Draw(const std::string& text) {
  if (!shown_) {
    return;
  }
  // Back to the first line drawn, and clear from there on.
  if (drawn_lines_ > 0) {
    Print(stderr, "\x1b[{}A\r\x1b[J", drawn_lines_);
  }
  const std::string cut = CutLines(text, Columns());
  Print(stderr, "{}", cut);
  std::fflush(stderr);
  drawn_lines_ = static_cast<std::size_t>(std::ranges::count(cut, '\n'));
}

}  // namespace ipplay::measure
