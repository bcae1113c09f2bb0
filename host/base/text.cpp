// SPDX-License-Identifier: MIT
#include "host/base/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace ipplay {
namespace {

struct Character {
  char32_t code;
  std::size_t length;
  bool is_valid;
};

// One character of UTF-8 (RFC 3629); a byte that begins none counts by itself.
Character CharacterAt(std::string_view text) {
  const auto first = static_cast<std::uint8_t>(text[0]);
  const std::size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  const Character invalid{first, 1, false};
  if ((first >= 0x80 && first < 0xC2) || first > 0xF4 || text.size() < length) {
    return invalid;
  }
  constexpr std::uint8_t kLeadBits[] = {0x7F, 0x1F, 0x0F, 0x07};
  char32_t code = first & kLeadBits[length - 1];
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<std::uint8_t>(text[i]);
    if ((next & 0xC0) != 0x80) {
      return invalid;
    }
    code = code << 6 | (next & 0x3FU);
  }
  constexpr char32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < kSmallest[length - 1] || code > 0x10FFFF || is_surrogate) {
    return invalid;
  }
  return {code, length, true};
}

bool IsObeyed(char32_t code) {
  constexpr struct {
    char32_t first, last;
  } kRanges[] = {
      {0x00, 0x1F},      // C0
      {0x7F, 0x9F},      // DEL and C1
      {0x061C, 0x061C},  // Arabic letter mark
      {0x200E, 0x200F},  // left-to-right and right-to-left mark
      {0x2028, 0x2029},  // line and paragraph separator
      {0x202A, 0x202E},  // embedding and override of direction
      {0x2066, 0x2069},  // isolation of direction
  };
  for (const auto& range : kRanges) {
    if (code >= range.first && code <= range.last) {
      return true;
    }
  }
  return false;
}

std::string Quote(std::string_view text, std::string_view kept) {
  std::string quoted;
  quoted.reserve(text.size());
  while (!text.empty()) {
    const Character character = CharacterAt(text);
    const std::string_view bytes = text.substr(0, character.length);
    if (character.is_valid &&
        (!IsObeyed(character.code) || kept.find(bytes) != std::string_view::npos)) {
      quoted += bytes;
    } else {
      fmt::format_to(std::back_inserter(quoted), "\\u{:04x}",
                     static_cast<std::uint32_t>(character.code));
    }
    text.remove_prefix(bytes.size());
  }
  return quoted;
}

}  // namespace

std::string Quoted(std::string_view text) {
  return Quote(text, "\n\t");
}

std::string QuotedLine(std::string_view text) {
  return Quote(text, "");
}

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
  });
  return lower;
}

}  // namespace ipplay
