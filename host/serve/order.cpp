// SPDX-License-Identifier: MIT
#include "host/serve/order.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>

#include "host/stream/live_source.h"

namespace ipplay::serve {
namespace {

constexpr std::string_view kPlainCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_./:@%+=,";

// Whether `ipplay play` takes the name of a file for it.
bool TakesFile(const std::string& name) {
  CLI::App command;
  PlayOptions scratch;
  DefinePlayOptions(command, scratch);
  const CLI::Option* const option = command.get_option_no_throw("--" + name);
  return option != nullptr && option->get_type_name().find("FILE") != std::string::npos;
}

// A target without "://" may be the name of a file.
std::optional<Failure> RefuseFiles(const ChannelOption& option) {
  const bool is_file =
      option.name == "to" && std::ranges::any_of(option.values, [](const auto& to) {
        return to.find("://") == std::string::npos;
      });
  if (is_file || (option.name != "input" && option.name != "to" && TakesFile(option.name))) {
    return UsageFailure("--" + option.name +
                        ": the server writes no files; give a target as rtp://239.1.1.1:5004");
  }
  return std::nullopt;
}

void AddWords(const ChannelOption& option, const std::string& input, std::string& command) {
  const auto add = [&command](const std::string& word) { command += " " + ShellQuoted(word); };
  const bool is_flag = option.values.size() == 1 &&
                       (option.values.front() == "true" || option.values.front() == "false");
  if (option.name == "input") {
    add("--input");
    add(input);
  } else if (is_flag) {
    if (option.values.front() == "true") {
      add("--" + option.name);
    }
  } else {
    const std::size_t step = option.name == "at" ? 2 : 1;
    for (std::size_t i = 0; i < option.values.size(); ++i) {
      if (i % step == 0) {
        add("--" + option.name);
      }
      add(option.values[i]);
    }
  }
}

}  // namespace

std::string ShellQuoted(const std::string& word) {
  if (!word.empty() && word.find_first_not_of(kPlainCharacters) == std::string::npos) {
    return word;
  }
  std::string quoted = "'";
  for (const char c : word) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

Result<Order> MakeOrder(std::vector<ChannelOption> options, const MediaStore& media) {
  Order order;
  std::string real_path;
  for (ChannelOption& option : options) {
    if (auto failure = RefuseFiles(option)) {
      return *std::move(failure);
    }
    if (option.name != "input" || option.values.size() != 1) {
      continue;
    }
    order.input = real_path = option.values.front();
    if (!IsLiveAddress(order.input)) {
      auto file = media.OpenFile(order.input);
      if (!file) {
        return file.Error();
      }
      order.file = std::move(file->fd);
      order.opened = option.values.front() = MediaStore::PathOf(order.file);
      real_path = std::move(file->real_path);
    }
  }
  order.command = "ipplay play";
  for (const ChannelOption& option : options) {
    AddWords(option, real_path, order.command);
  }
  order.options = std::move(options);
  return order;
}

}  // namespace ipplay::serve
