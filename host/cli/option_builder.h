// SPDX-License-Identifier: MIT
// Options whose values are read by a function, with one form for the refusal of a value.
#pragma once

#include <fmt/format.h>
#include <CLI/App.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "host/base/numbers.h"

namespace ipplay {

class OptionBuilder {
 public:
  explicit OptionBuilder(CLI::App& command) : command_(command) {}

  // Options that follow stand under this heading in the help.
  void Group(std::string name) { group_ = std::move(name); }

  // `parse` turns the text into an optional value for `field`; `wanted` completes the sentence
  // "... is not valid; give". `default_text`, if any, is read into `field` at once and written to
  // configuration files.
  template <typename Field, typename Parse>
  CLI::Option* Value(const std::string& names, Field& field, const std::string& type,
                     const std::string& wanted, const std::string& help, Parse parse,
                     const std::string& default_text = {}) {
    const std::string name = names.substr(0, names.find(','));
    const auto take = [&field, name, wanted, parse](const std::string& text) {
      auto value = parse(text);
      if (!value) {
        throw Invalid(name, text, wanted);
      }
      field = *std::move(value);
    };
    CLI::Option* option = command_.add_option_function<std::string>(names, take, help);
    option->type_name(type)->group(group_);
    if (!default_text.empty()) {
      take(default_text);
      option->default_str(default_text);
    }
    return option;
  }

  // `field` is a number or an optional one.
  template <typename Field>
  CLI::Option* Number(const std::string& names, Field& field, std::uint32_t lowest,
                      std::uint32_t highest, const std::string& help,
                      const std::string& default_text = {}) {
    const std::string wanted = fmt::format("{} to {}", lowest, highest);
    const auto parse = [lowest, highest](const std::string& text) {
      const auto number = ParseNumber(text, lowest, highest);
      return number ? std::optional(static_cast<std::uint32_t>(*number)) : std::nullopt;
    };
    return Value(names, field, "N", wanted, help, parse, default_text);
  }

  CLI::Option* Flag(const std::string& names, bool& field, const std::string& help) {
    return Checked(command_.add_flag(names, field, help));
  }

  // A flag that clears `field`.
  CLI::Option* Unset(const std::string& names, bool& field, const std::string& help) {
    return Checked(command_.add_flag_function(
        names, [&field](std::int64_t count) { field = count <= 0; }, help));
  }

  static CLI::ValidationError Invalid(const std::string& name, const std::string& text,
                                      const std::string& wanted) {
    return CLI::ValidationError(name, Refusal(text, wanted));
  }

 private:
  static std::string Refusal(const std::string& text, const std::string& wanted) {
    const bool is_range = wanted.find_first_not_of("0123456789-to ") == std::string::npos;
    if (is_range && IsWholeNumber(text)) {
      return fmt::format("{} is out of range; give {}", text, wanted);
    }
    return fmt::format("\"{}\" is not {}; give {}", text, is_range ? "a whole number" : "valid",
                       wanted);
  }

  CLI::Option* Checked(CLI::Option* flag) {
    return flag->group(group_)->check([](const std::string& text) -> std::string {
      if (text == "true" || text == "false") {
        return {};
      }
      return Refusal(text, "true or false");
    });
  }

  CLI::App& command_;
  std::string group_ = "Options";  // without one an option is hidden
};

}  // namespace ipplay
