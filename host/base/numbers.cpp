// SPDX-License-Identifier: MIT
#include "host/base/numbers.h"

#include <charconv>

namespace ipplay {

std::optional<std::uint64_t> ParseNumber(std::string_view text, std::uint64_t lowest,
                                         std::uint64_t highest) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    base = 16;
  }
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc{} || end != text.data() + text.size()) {
    return std::nullopt;
  }
  if (value < lowest || value > highest) {
    return std::nullopt;
  }
  return value;
}

bool IsWholeNumber(std::string_view text) {
  text.remove_prefix(text.starts_with('-') ? 1 : 0);
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  text.remove_prefix(hex ? 2 : 0);
  const char* digits = hex ? "0123456789abcdefABCDEF" : "0123456789";
  return !text.empty() && text.find_first_not_of(digits) == std::string_view::npos;
}

std::optional<std::string> ParseText(std::string_view text) {
  if (text.empty()) {
    return std::nullopt;
  }
  return std::string(text);
}

}  // namespace ipplay
