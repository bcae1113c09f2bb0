// SPDX-License-Identifier: MIT
// Tables of the report: with caption and scopes, and on a phone a card for each row.
#pragma once

#include <string>
#include <vector>

namespace ipplay::measure {

struct HtmlCell {
  std::string text;  // not yet escaped
  bool bad = false;  // marked
};

struct HtmlTable {
  std::string caption;
  bool of_text = false;                     // left-aligned, and broken into lines
  std::vector<const char*> columns;         // none: each row is a name and its text
  std::vector<std::vector<HtmlCell>> rows;  // the first cell names its row
};

std::string TableHtml(const HtmlTable& table);

}  // namespace ipplay::measure
