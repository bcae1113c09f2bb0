// SPDX-License-Identifier: MIT
#include "host/lineup/number_template.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>

namespace ipplay {
namespace {

constexpr std::int64_t kMostNumber = 1'000'000'000;
constexpr int kMostWidth = 20;

// Takes a number from the front.
std::optional<std::int64_t> TakeNumber(std::string_view& text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number < 0 || number > kMostNumber) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

std::optional<std::int64_t> Apply(char operation, std::int64_t left, std::int64_t right) {
  const bool divides = operation == '/' || operation == '%';
  if (divides && right == 0) {
    return std::nullopt;
  }
  switch (operation) {
    case '+':
      return left + right;
    case '-':
      return left - right;
    case '*':
      return left <= kMostNumber ? std::optional(left * right) : std::nullopt;
    case '/':
      return left / right;
    case '%':
      return left % right;
    default:
      return std::nullopt;
  }
}

// What stands between the braces.
std::optional<std::string> Evaluate(std::string_view text, std::int64_t n) {
  if (!text.starts_with('n')) {
    return std::nullopt;
  }
  text.remove_prefix(1);
  std::int64_t value = n;
  while (!text.empty() && text.front() != ':') {
    const char operation = text.front();
    text.remove_prefix(1);
    const auto number = TakeNumber(text);
    const auto result = number ? Apply(operation, value, *number) : std::nullopt;
    if (!result) {
      return std::nullopt;
    }
    value = *result;
  }
  if (text.empty()) {
    return fmt::format("{}", value);
  }
  text.remove_prefix(1);
  const auto width = TakeNumber(text);
  if (!width || *width > kMostWidth || !text.empty()) {
    return std::nullopt;
  }
  return fmt::format("{:0{}}", value, *width);
}

}  // namespace

Result<std::string> ExpandTemplate(std::string_view text, std::int64_t n) {
  std::string expanded;
  while (!text.empty()) {
    const std::size_t open = std::min(text.find('{'), text.size());
    expanded += text.substr(0, open);
    text.remove_prefix(open);
    if (text.empty()) {
      break;
    }
    const std::size_t close = text.find('}');
    const auto value =
        close == std::string_view::npos ? std::nullopt : Evaluate(text.substr(1, close - 1), n);
    if (!value) {
      return UsageFailure(fmt::format(
          "\"{}\" is not valid; give {{n}}, {{n:3}} for three digits, or sums as {{n/250+1}}",
          text.substr(0, close == std::string_view::npos ? close : close + 1)));
    }
    expanded += *value;
    text.remove_prefix(close + 1);
  }
  return expanded;
}

}  // namespace ipplay
