// SPDX-License-Identifier: MIT
// Text of others: compared, and in text for people, where a terminal would obey instead of show.
#pragma once

#include <string>
#include <string_view>

namespace ipplay {

// Control characters (C0, DEL, C1), those that turn the direction of writing or break lines, and
// bytes that are no UTF-8 become \u and four digits, which JSON reads back as well. Line ends and
// tabs stay.
std::string Quoted(std::string_view text);

// Line ends and tabs do not stay either: a name stays in its line.
std::string QuotedLine(std::string_view text);

// A to Z alone, whatever the language of the user.
std::string LowerCase(std::string_view text);

}  // namespace ipplay
