// SPDX-License-Identifier: MIT
// The layout of --help: each option stands in it once.
#pragma once

#include <CLI/App.hpp>

#include <string>
#include <vector>

namespace ipplay {

class HelpFormatter final : public CLI::Formatter {
 public:
  // An argument that a configuration file names like an option is listed as the argument it is.
  std::string make_group(std::string group, bool is_positional,
                         std::vector<const CLI::Option*> options) const override {
    if (!is_positional) {
      std::erase_if(options, [](const CLI::Option* option) { return option->get_positional(); });
    }
    return options.empty() ? std::string()
                           : CLI::Formatter::make_group(group, is_positional, options);
  }
  // "FILE" and not "FILE FILE".
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string text = CLI::Formatter::make_option_opts(option);
    const std::string name = " " + option->get_name(true, false);
    return option->get_positional() && text.starts_with(name) ? text.substr(name.size()) : text;
  }
};

}  // namespace ipplay
