// SPDX-License-Identifier: MIT
#include "host/cli/refusal.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "host/cli/near_miss.h"

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

// The one of an option's names that was typed. An option that is missing or comes from a
// configuration file goes by its first name, a positional one by its name in the help.
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
    return name + ": wrong number of values; see --help";
  }
  const std::string type = option->get_type_name();
  if (option->count() == 0) {
    return fmt::format("{}: the value is missing; give {}", name, type);
  }
  return fmt::format("{}: \"{}\" is the wrong number of values; give one {}", name,
                     fmt::join(option->results(), " "), type);
}

// Of the options where the word is one, else of the commands.
std::string NearestTo(const CLI::App& app, const std::string& word) {
  std::vector<std::string> candidates;
  if (word.starts_with("--")) {
    for (const CLI::App* level : {&CommandOf(app), &app}) {
      for (const CLI::Option* option : level->get_options()) {
        for (const std::string& name : option->get_lnames()) {
          candidates.push_back("--" + name);
        }
      }
    }
  } else if (&CommandOf(app) == &app) {
    for (const CLI::App* command : app.get_subcommands({})) {
      candidates.push_back(command->get_name());
    }
  }
  return NearMiss(word.substr(0, word.find('=')), candidates);
}

std::string Unknown(const CLI::App& app) {
  const CLI::App& command = CommandOf(app);
  const auto words = app.remaining(true);
  const std::string word = words.empty() ? "" : words.front();
  const std::string meant = NearestTo(app, word);
  return fmt::format("{}: unknown here; {}\"ipplay{}{} --help\" lists what can be given", word,
                     meant.empty() ? "" : fmt::format("did you mean {}? ", meant),
                     &command == &app ? "" : " ", &command == &app ? "" : command.get_name());
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
  return "a command is required: devices, resolve, play, measure, lineup, gather, serve or demo";
}

std::string ExplainConfig(const std::string& what) {
  if (what.starts_with("--config")) {
    return what;
  }
  const bool unknown = what.starts_with("INI was not able to parse ");
  const std::string name =
      unknown ? what.substr(what.rfind(' ') + 1) : what.substr(0, what.find(':'));
  return fmt::format(
      "--config: \"{}\" cannot stand in the file; give options as --write-config writes them",
      name);
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
      return "--config: cannot be read; give a file";
    case CLI::ExitCodes::RequiresError:
      return fmt::format("{} needs {}", what.substr(0, what.find(' ')),
                         what.substr(what.rfind(' ') + 1));
    default:
      return what;
  }
}

// A value that is wrong in itself is in the message already.
bool HasValue(const CLI::Option& option, const std::string& rest) {
  const auto& values = option.results();
  return rest.starts_with(": \"") ||
         std::any_of(values.begin(), values.end(), [&rest](const std::string& value) {
           return rest.starts_with(fmt::format(": {} is out of range", value));
         });
}

}  // namespace

std::string NameAsTyped(const CLI::App& app, Words words, const std::string& message) {
  const std::size_t end = message.find_first_of(": ");
  if (end == std::string::npos) {
    return message;
  }
  const std::string name = message.substr(0, end);
  const CLI::Option* option = FindOption(app, name);
  if (option == nullptr) {
    return message;
  }
  const std::string rest = message.substr(end);
  const bool takes_value = option->get_items_expected_max() > 0 && name.starts_with('-');
  if (!takes_value || option->count() == 0 || !rest.starts_with(':') || HasValue(*option, rest)) {
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
