// SPDX-License-Identifier: MIT
#include "host/lineup/lineup_file.h"

#define TOML_EXCEPTIONS 0
#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>
#include <utility>

#include "host/base/numbers.h"
#include "host/base/units.h"
#include "host/base/wall_clock.h"
#include "host/lineup/number_template.h"
#include "host/stream/live_source.h"

namespace ipplay {
namespace {

constexpr std::int64_t kMostGenerated = 100'000;
constexpr std::size_t kMostBytes = 16 << 20;

// An option or another key of a channel, as it stands in the file.
struct Entry {
  std::vector<std::string> values;
  std::uint32_t line = 0;
};
using Entries = std::map<std::string, Entry>;

std::uint32_t LineOf(const toml::node& node) {
  return node.source().begin.line;
}

void AddValues(const toml::node& node, std::vector<std::string>& values) {
  if (const auto* text = node.as_string()) {
    values.push_back(text->get());
  } else if (const auto* whole = node.as_integer()) {
    values.push_back(fmt::format("{}", whole->get()));
  } else if (const auto* real = node.as_floating_point()) {
    values.push_back(fmt::format("{}", real->get()));
  } else if (const auto* flag = node.as_boolean()) {
    values.emplace_back(flag->get() ? "true" : "false");
  } else if (const auto* list = node.as_array()) {
    for (const toml::node& element : *list) {
      AddValues(element, values);
    }
  } else {
    std::ostringstream other;  // a date or a time
    node.visit([&other](const auto& value) {
      if constexpr (toml::is_date_time<decltype(value)>) {
        other << value.get();
      }
    });
    values.push_back(other.str());
  }
}

Entries EntriesOf(const toml::table& table) {
  Entries entries;
  for (const auto& [key, node] : table) {
    Entry& entry = entries[std::string(key.str())];
    entry.line = key.source().begin.line;
    AddValues(node, entry.values);
  }
  return entries;
}

class Reader {
 public:
  explicit Reader(std::string folder) : folder_(std::move(folder)) {}

  Lineup Read(const toml::table& file) {
    for (const auto& [key, node] : file) {
      TakeTop(std::string(key.str()), key.source().begin.line, node);
    }
    for (const auto& [table, is_series] : tables_) {
      if (is_series) {
        Generate(*table);
      } else {
        Take(WithDefaults(EntriesOf(*table)), LineOf(*table));
      }
    }
    if (tables_.empty() && lineup_.mistakes.empty()) {
      Blame(1, "no channel; give one as [[channel]] with name, input and to");
    }
    std::ranges::sort(lineup_.mistakes);
    lineup_.mistakes.erase(std::unique(lineup_.mistakes.begin(), lineup_.mistakes.end()),
                           lineup_.mistakes.end());
    return std::move(lineup_);
  }

  void Blame(std::uint32_t line, std::string text) {
    lineup_.mistakes.push_back({line, std::move(text)});
  }

 private:
  void TakeTop(const std::string& key, std::uint32_t line, const toml::node& node) {
    if (key == "start-at") {
      Entry entry{{}, line};
      AddValues(node, entry.values);
      defaults_.insert_or_assign(key, entry);
    } else if (key == "defaults" && node.is_table()) {
      Entries given = EntriesOf(*node.as_table());
      if (const auto name = given.find("name"); name != given.end()) {
        Blame(name->second.line, "name: each channel has its own; give it there");
        given.erase(name);
      }
      defaults_.merge(given);
    } else if ((key == "channel" || key == "generate") && node.is_array_of_tables()) {
      for (const toml::node& table : *node.as_array()) {
        tables_.emplace_back(table.as_table(), key == "generate");
      }
    } else {
      Blame(line, fmt::format("{}: not valid here; give start-at, [defaults], [[channel]] or "
                              "[[generate]]",
                              key));
    }
  }

  // false takes a default away.
  Entries WithDefaults(Entries own) const {
    for (const auto& [key, entry] : defaults_) {
      own.emplace(key, entry);
    }
    std::erase_if(own, [](const auto& item) {
      return item.second.values == std::vector<std::string>{"false"};
    });
    return own;
  }

  std::optional<std::int64_t> TakeWhole(Entries& entries, const std::string& key,
                                        std::int64_t lowest, std::int64_t highest) {
    const auto found = entries.find(key);
    const Entry entry = found->second;
    entries.erase(found);
    const auto number = entry.values.size() == 1
                            ? ParseNumber(entry.values.front(), static_cast<std::uint64_t>(lowest),
                                          static_cast<std::uint64_t>(highest))
                            : std::nullopt;
    if (!number) {
      Blame(entry.line, fmt::format("{}: {} is not valid; give {} to {}", key,
                                    fmt::join(entry.values, " "), lowest, highest));
      return std::nullopt;
    }
    return static_cast<std::int64_t>(*number);
  }

  void Generate(const toml::table& table) {
    Entries entries = WithDefaults(EntriesOf(table));
    if (!entries.contains("count")) {
      Blame(LineOf(table), "count is required: the number of channels to generate");
      return;
    }
    const auto count = TakeWhole(entries, "count", 1, kMostGenerated);
    const auto first = entries.contains("first") ? TakeWhole(entries, "first", 0, 1'000'000'000)
                                                 : std::optional<std::int64_t>(1);
    if (!count || !first) {
      return;
    }
    for (std::int64_t n = *first; n < *first + *count; ++n) {
      Entries expanded = entries;
      if (!Expand(expanded, n) || !Take(std::move(expanded), LineOf(table))) {
        return;  // the others have the same mistake
      }
    }
  }

  bool Expand(Entries& entries, std::int64_t n) {
    for (auto& [key, entry] : entries) {
      for (std::string& value : entry.values) {
        auto text = ExpandTemplate(value, n);
        if (!text) {
          Blame(entry.line, fmt::format("{}: {}", key, text.Error().message));
          return false;
        }
        value = *std::move(text);
      }
    }
    return true;
  }

  // False where something is wrong with it.
  bool Take(Entries entries, std::uint32_t line) {
    const std::size_t before = lineup_.mistakes.size();
    ChannelOrder order;
    TakeName(entries, line, order);
    TakeRestart(entries, order);
    for (auto& [key, entry] : entries) {
      if (key == "input" && !entry.values.empty()) {
        entry.values.front() = PathOf(entry.values.front());
      }
      order.options.push_back({key, entry.values});
    }
    JudgeOptions(entries, order, line);
    if (lineup_.mistakes.size() > before) {
      return false;
    }
    lineup_.channels.push_back({std::move(order), line});
    return true;
  }

  void TakeName(Entries& entries, std::uint32_t line, ChannelOrder& order) {
    const auto name = entries.find("name");
    if (name == entries.end() || name->second.values.size() != 1 ||
        name->second.values.front().empty()) {
      Blame(line, "name is required: a text of its own for each channel");
      return;
    }
    order.name = name->second.values.front();
    const auto [other, is_new] = names_.emplace(order.name, name->second.line);
    if (!is_new) {
      Blame(name->second.line, fmt::format("name: {} is used in line {} already; give each channel "
                                           "a name of its own, in a series with {{n}}",
                                           order.name, other->second));
    }
    entries.erase(name);
  }

  // Takes a key that is no option of `play`.
  template <typename Value, typename Parse>
  void TakeOwn(Entries& entries, const std::string& key, Value& value, const Parse& parse,
               std::string_view wanted) {
    const auto found = entries.find(key);
    if (found == entries.end()) {
      return;
    }
    const Entry entry = found->second;
    entries.erase(found);
    const std::string text = fmt::format("{}", fmt::join(entry.values, " "));
    if (const auto parsed = parse(text)) {
      value = *parsed;
    } else {
      Blame(entry.line, fmt::format("{}: {} is not valid; give {}", key, text, wanted));
    }
  }

  void TakeRestart(Entries& entries, ChannelOrder& order) {
    TakeOwn(entries, "restart", order.restart, ParseRestart, kRestartWords);
    TakeOwn(entries, "restart-after", order.restart_after, ParseDuration, "a time as 5s");
    TakeOwn(entries, "start-at", order.start_at, ParseWallClock, kStartTimeWords);
  }

  std::string PathOf(const std::string& input) const {
    const bool stays =
        folder_.empty() || input.starts_with('/') || input == "-" || IsLiveAddress(input);
    return stays ? input : fmt::format("{}/{}", folder_, input);
  }

  void JudgeOptions(const Entries& entries, const ChannelOrder& order, std::uint32_t line) {
    const auto parsed = ParseChannelOptions(order.options);
    const auto* const wrong = std::get_if<std::vector<std::string>>(&parsed);
    if (wrong == nullptr) {
      return;
    }
    for (const std::string& mistake : *wrong) {
      // Each begins with its option.
      const std::size_t start = mistake.starts_with("--") ? 2 : 0;
      const std::string key = mistake.substr(start, mistake.find_first_of(": ", start) - start);
      const auto entry = entries.find(key);
      Blame(entry == entries.end() ? line : entry->second.line, mistake.substr(start));
    }
  }

  const std::string folder_;
  Entries defaults_;
  std::vector<std::pair<const toml::table*, bool>> tables_;  // and whether it is a series
  std::map<std::string, std::uint32_t> names_;
  Lineup lineup_;
};

}  // namespace

Lineup ParseLineup(const std::string& text, const std::string& folder) {
  Reader reader(folder);
  const auto file = toml::parse(text);
  if (!file) {
    const auto& error = file.error();
    return {{}, {{error.source().begin.line, std::string(error.description())}}};
  }
  return reader.Read(file.table());
}

Result<Lineup> ReadLineup(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kMostBytes + 1, '\0');
  if (!file || file.read(text.data(), static_cast<std::streamsize>(text.size())).bad() ||
      (file.gcount() == 0 && !file.eof())) {
    return UsageFailure(fmt::format("{} cannot be read; give a lineup, as a TOML file", path));
  }
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > kMostBytes) {
    return UsageFailure(
        fmt::format("{} is too large; give a file of at most {} bytes", path, kMostBytes));
  }
  const std::size_t slash = path.rfind('/');
  return ParseLineup(text, slash == std::string::npos ? "" : path.substr(0, slash));
}

}  // namespace ipplay
