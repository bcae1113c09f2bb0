// SPDX-License-Identifier: MIT
#include "host/base/text.h"

#include <gtest/gtest.h>

namespace ipplay {
namespace {

TEST(Text, QuotesWhatATerminalObeysAndNothingElse) {
  const struct {
    std::string_view text, line;
  } cases[] = {
      {"", ""},
      {"Größe 5 €, 日本 \U0001F600", "Größe 5 €, 日本 \U0001F600"},
      {"a\nb\tc", "a\\u000ab\\u0009c"},
      {"\x1b[2J\x07\x7f", "\\u001b[2J\\u0007\\u007f"},
      {"\u0085\u009b\u00a0", "\\u0085\\u009b\u00a0"},
      {"\u202e\u2066\u200f\u061c\u2028", "\\u202e\\u2066\\u200f\\u061c\\u2028"},
      {"\x9b\xff\xc3", "\\u009b\\u00ff\\u00c3"},                        // no UTF-8
      {"\xc0\x9b\xe0\x82\x9b", "\\u00c0\\u009b\\u00e0\\u0082\\u009b"},  // longer than needed
      {"\xed\xa0\x80", "\\u00ed\\u00a0\\u0080"},                        // half of a UTF-16 pair
  };
  for (const auto& c : cases) {
    EXPECT_EQ(QuotedLine(c.text), c.line);
    EXPECT_EQ(Quoted(c.text), c.text.find('\n') == std::string_view::npos ? c.line : c.text);
  }
}

}  // namespace
}  // namespace ipplay
