// SPDX-License-Identifier: MIT
#include "host/cli/refusal.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace ipplay {
namespace {

const CLI::App& CommandOf(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app : *chosen.front();
}

const CLI::Option* FindOption(const CLI::App& app, const std::string& name) {
  const CLI::Option* option = CommandOf(app).get_option_no_throw(name);
  return option == nullptr ? app.get_option_no_throw(name) : option;
}

bool WasTyped(Words words, const std::string& name) {
  return std::any_of(words.begin(), words.end(), [&name](std::string_view word) {
    return word == name || word.starts_with(name + "=");
  });
}

// Of an option's names the one that was typed. One that stands in a configuration file, or that is
// missing, has its first name; a positional one the name that the help gives it.
std::string TypedName(const CLI::Option& option, Words words) {
  for (const std::string& name : option.get_lnames()) {
    if (WasTyped(words, "--" + name)) {
      return "--" + name;
    }
  }
  for (const std::string& name : option.get_snames()) {
    if (WasTyped(words, "-" + name)) {
      return "-" + name;
    }
  }
  return option.get_name(option.get_positional());
}

std::string WrongCount(const CLI::App& app, const std::string& name) {
  const CLI::Option* option = FindOption(app, name);
  if (option == nullptr) {
    return name + ": the number of values is not allowed";
  }
  const std::string type = option->get_type_name();
  if (option->count() == 0) {
    return fmt::format("{}: no value is given; allowed is {}", name, type);
  }
  return fmt::format("{}: \"{}\" is not allowed; allowed is one {}", name,
                     fmt::join(option->results(), " "), type);
}

std::string Unknown(const CLI::App& app) {
  const CLI::App& command = CommandOf(app);
  const auto words = app.remaining(true);
  return fmt::format("{}: is not allowed here; allowed is what \"ipplay{}{} --help\" lists",
                     words.empty() ? "" : words.front(), &command == &app ? "" : " ",
                     &command == &app ? "" : command.get_name());
}

std::string Missing(const CLI::App& app, const std::string& name) {
  const CLI::Option* option = FindOption(app, name);
  if (option != nullptr) {
    return fmt::format("{} is required: {}", option->get_name(option->get_positional()),
                       option->get_type_name());
  }
  if (!app.remaining(true).empty()) {
    return Unknown(app);
  }
  return "a command is required: devices, resolve, play, measure or demo";
}

std::string ExplainConfig(const std::string& what) {
  if (what.starts_with("--config")) {
    return what;
  }
  const bool unknown = what.starts_with("INI was not able to parse ");
  const std::string name =
      unknown ? what.substr(what.rfind(' ') + 1) : what.substr(0, what.find(':'));
  return fmt::format(
      "--config: \"{}\" is not allowed in the file; allowed is what --write-config writes", name);
}

std::string Explain(const CLI::App& app, const CLI::ParseError& error) {
  std::string what = error.what();
  switch (static_cast<CLI::ExitCodes>(error.get_exit_code())) {
    case CLI::ExitCodes::ArgumentMismatch:
      return WrongCount(app, what.substr(0, what.find(':')));
    case CLI::ExitCodes::RequiredError:
      return Missing(app, what.substr(0, what.find(' ')));
    case CLI::ExitCodes::ExtrasError:
      return Unknown(app);
    case CLI::ExitCodes::ConfigError:
      return ExplainConfig(what);
    case CLI::ExitCodes::FileError:
      return "--config: cannot be read; allowed is a file";
    case CLI::ExitCodes::RequiresError:
      return fmt::format("{}: needs {}", what.substr(0, what.find(' ')),
                         what.substr(what.rfind(' ') + 1));
    default:
      return what;
  }
}

}  // namespace

std::string NameAsTyped(const CLI::App& app, Words words, const std::string& message) {
  const std::size_t colon = message.find(": ");
  if (colon == std::string::npos) {
    return message;
  }
  const std::string name = message.substr(0, colon);
  const CLI::Option* option = FindOption(app, name);
  if (option == nullptr) {
    return message;
  }
  const std::string rest = message.substr(colon);
  // A value that is refused by itself is in the message already, in quotation marks.
  const bool has_value = rest.starts_with(": \"") || !name.starts_with('-');
  const bool takes_value = option->get_items_expected_max() > 0;
  if (has_value || !takes_value || option->count() == 0) {
    return TypedName(*option, words) + rest;
  }
  return fmt::format("{} {}{}", TypedName(*option, words), fmt::join(option->results(), " "), rest);
}

std::string ExplainRefusal(const CLI::App& app, Words words, const CLI::ParseError& error) {
  std::string line = NameAsTyped(app, words, Explain(app, error));
  // What the user gave may hold anything.
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return line;
}

}  // namespace ipplay
