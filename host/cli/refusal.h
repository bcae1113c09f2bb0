// SPDX-License-Identifier: MIT
// How a refused command line or configuration file is told: one line that names the option as the
// user typed it, the value, and what is allowed.
#pragma once

#include <CLI/App.hpp>

#include <span>
#include <string>

namespace ipplay {

using Words = std::span<const char* const>;  // of the command line

// The line for what CLI11 refused.
std::string ExplainRefusal(const CLI::App& app, Words words, const CLI::ParseError& error);

// Where `message` starts with an option's name and a colon, as in "--ttl: ...", that becomes the
// name that was typed and the value: "--hop-limit 300: ...". Other messages stay.
std::string NameAsTyped(const CLI::App& app, Words words, const std::string& message);

}  // namespace ipplay
