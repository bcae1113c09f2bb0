// SPDX-License-Identifier: MIT
// The configuration file: the options of one command, a line each. In TOML's terms, a table of
// strings, numbers, booleans and arrays of strings. CLI11's own form of it cuts a value at # and
// has no way to write one with both kinds of quotation marks or a line break.
#pragma once

#include <CLI/App.hpp>

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"

namespace ipplay {

class ConfigFile : public CLI::Config {
 public:
  // The options of the command that was chosen, given or with a fixed default.
  std::string to_config(const CLI::App* app, bool default_also, bool write_description,
                        std::string prefix) const override;
  // Throws CLI::ConfigError, with the number of the line.
  std::vector<CLI::ConfigItem> from_config(std::istream& input) const override;

  // Whether the option has the value that the file gave it last.
  bool Gave(const CLI::App& command, const CLI::Option& option) const;

 private:
  mutable std::vector<CLI::ConfigItem> read_;
};

// Whether the value of `option` ("--report") of the command comes from a configuration file.
bool IsFromFile(const CLI::App& app, const CLI::App& command, const std::string& option);

// Writes the options of `app` to `path`, if that is not empty.
std::optional<Failure> WriteConfig(const CLI::App& app, const std::string& path);

}  // namespace ipplay
