// SPDX-License-Identifier: MIT
#include "host/cli/config_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <istream>
#include <string_view>

#include "host/base/output_file.h"

namespace ipplay {
namespace {

constexpr std::size_t kMostBytes = 1U << 20;
constexpr std::string_view kBlanks = " \t\r";

std::string InQuotes(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return quoted + '"';
}

std::string Values(const CLI::Option& option) {
  std::vector<std::string> texts = option.results();
  if (option.get_items_expected_max() == 0) {
    return option.count() > 0 ? texts.back() : "false";
  }
  if (texts.empty() && !option.get_default_str().empty()) {
    texts = {option.get_default_str()};
  }
  if (texts.empty()) {
    return {};
  }
  std::transform(texts.begin(), texts.end(), texts.begin(), InQuotes);
  if (texts.size() == 1) {
    return texts.front();
  }
  return fmt::format("[{}]", fmt::join(texts, ", "));
}

// Takes a line apart from the left.
class Line {
 public:
  Line(std::string_view text, int number) : rest_(text), number_(number) { SkipBlanks(); }

  bool IsEmpty() const { return rest_.empty() || rest_.front() == '#'; }
  bool Take(char c) {
    if (!rest_.starts_with(c)) {
      return false;
    }
    rest_.remove_prefix(1);
    SkipBlanks();
    return true;
  }
  void Need(char c) {
    if (!Take(c)) {
      Refuse(fmt::format("\"{}\" is missing", c));
    }
  }
  std::string TakeName() { return TakeUntil(" \t\r=]#"); }
  std::vector<std::string> TakeValues() {
    std::vector<std::string> values;
    if (!Take('[')) {
      return {TakeValue()};
    }
    while (!Take(']')) {
      values.push_back(TakeValue());
      if (!Take(',')) {
        Need(']');
        break;
      }
    }
    return values;
  }
  void NeedEnd() const {
    if (!IsEmpty()) {
      Refuse(fmt::format("\"{}\" is left over", rest_));
    }
  }

 private:
  [[noreturn]] void Refuse(const std::string& why) const {
    throw CLI::ConfigError(fmt::format("--config: line {}: {}; write NAME = VALUE", number_, why));
  }
  void SkipBlanks() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(kBlanks), rest_.size()));
  }
  std::string TakeUntil(std::string_view ends) {
    const std::size_t length = std::min(rest_.find_first_of(ends), rest_.size());
    if (length == 0) {
      Refuse("a name or a value is missing");
    }
    std::string text(rest_.substr(0, length));
    rest_.remove_prefix(length);
    SkipBlanks();
    return text;
  }
  std::string TakeValue() {
    if (!rest_.starts_with('"')) {
      return TakeUntil(" \t\r,]#");
    }
    std::string value;
    std::size_t at = 1;
    for (; at < rest_.size() && rest_[at] != '"'; ++at) {
      const bool escaped = rest_[at] == '\\' && at + 1 < rest_.size();
      if (escaped) {
        ++at;
      }
      value += escaped && rest_[at] == 'n' ? '\n' : rest_[at];
    }
    if (at >= rest_.size()) {
      Refuse("the closing quotation mark is missing");
    }
    rest_.remove_prefix(at + 1);
    SkipBlanks();
    return value;
  }

  std::string_view rest_;
  int number_;
};

}  // namespace

std::string ConfigFile::to_config(const CLI::App* app, bool /*default_also*/,
                                  bool /*write_description*/, std::string /*prefix*/) const {
  std::string text;
  for (const CLI::App* command : app->get_subcommands()) {
    text += fmt::format("[{}]\n", command->get_name());
    for (const CLI::Option* option : command->get_options()) {
      if (!option->get_configurable()) {
        continue;
      }
      const std::string values = Values(*option);
      if (!values.empty()) {
        text += fmt::format("{} = {}\n", option->get_single_name(), values);
      }
    }
  }
  return text;
}

std::vector<CLI::ConfigItem> ConfigFile::from_config(std::istream& input) const {
  std::vector<CLI::ConfigItem> read;
  std::vector<std::string> section;
  std::string text;
  std::array<char, 4096> block{};
  while (text.size() <= kMostBytes && input.read(block.data(), block.size()).gcount() > 0) {
    text.append(block.data(), static_cast<std::size_t>(input.gcount()));
  }
  if (input.bad()) {
    throw CLI::FileError("");
  }
  if (text.size() > kMostBytes) {
    throw CLI::ConfigError(
        fmt::format("--config: the file is too large; give one of at most {} bytes", kMostBytes));
  }
  std::string_view rest = text;
  for (int number = 1; !rest.empty(); ++number) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    Line line(rest.substr(0, end), number);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.IsEmpty()) {
      continue;
    }
    if (line.Take('[')) {
      section = {line.TakeName()};
      line.Need(']');
    } else {
      CLI::ConfigItem item;
      item.parents = section;
      item.name = line.TakeName();
      line.Need('=');
      item.inputs = line.TakeValues();
      read.push_back(std::move(item));
    }
    line.NeedEnd();
  }
  read_ = read;
  return read;
}

bool ConfigFile::Gave(const CLI::App& command, const CLI::Option& option) const {
  return std::ranges::any_of(read_, [&](const CLI::ConfigItem& item) {
    return item.parents == std::vector{command.get_name()} && option.check_lname(item.name) &&
           item.inputs == option.results();
  });
}

bool IsFromFile(const CLI::App& app, const CLI::App& command, const std::string& option) {
  const auto* file = dynamic_cast<const ConfigFile*>(app.get_config_formatter().get());
  return file != nullptr && file->Gave(command, *command.get_option(option));
}

std::optional<Failure> WriteConfig(const CLI::App& app, const std::string& path) {
  if (path.empty()) {
    return std::nullopt;
  }
  const auto file = OutputFile::Create("--write-config", path);
  if (!file) {
    return file.Error();
  }
  return file->Commit(app.config_to_str(true, false));
}

}  // namespace ipplay
