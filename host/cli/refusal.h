// SPDX-License-Identifier: MIT
// The message for a refused command line or configuration file: one line that names the option as
// the user typed it, what is wrong with its value, and what to give instead.
#pragma once

#include <CLI/App.hpp>

#include <span>
#include <string>

namespace ipplay {

using Words = std::span<const std::string>;  // of the command line, without the program

// The line for what CLI11 refused.
std::string ExplainRefusal(const CLI::App& app, Words words, const CLI::ParseError& error);

// Where `message` starts with the name of an option, as in "--tos and --dscp exclude each other",
// that becomes the name that was typed. With a colon behind it, as in "--ttl: ...", the value is
// added: "--hop-limit 300: ...". Other messages stay.
std::string NameAsTyped(const CLI::App& app, Words words, const std::string& message);

}  // namespace ipplay
