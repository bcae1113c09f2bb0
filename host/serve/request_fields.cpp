// SPDX-License-Identifier: MIT
#include "host/serve/request_fields.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/base/json.h"
#include "host/base/text.h"
#include "host/base/units.h"

namespace ipplay::serve {
namespace {

constexpr int kDeepest = 8;
constexpr std::size_t kLongestName = 100;
constexpr std::size_t kMostValues = 1000;

// None where it is no JSON, or nested deeper than anything that is asked for.
std::optional<Json> Parse(const std::string& body) {
  bool is_deep = false;
  const auto look = [&is_deep](int depth, Json::parse_event_t, Json&) {
    is_deep = is_deep || depth > kDeepest;
    return !is_deep;
  };
  Json json = Json::parse(body, look, false);
  return is_deep || json.is_discarded() ? std::nullopt : std::optional(std::move(json));
}

// False where a value is no text, number, or true or false.
bool AddValue(const Json& value, std::vector<std::string>& values) {
  if (value.is_array()) {
    return std::ranges::all_of(value,
                               [&values](const Json& part) { return AddValue(part, values); });
  }
  if (values.size() >= kMostValues || value.is_object() || value.is_null()) {
    return false;
  }
  if (value.is_string()) {
    values.push_back(value.get<std::string>());
  } else if (value.is_number_float()) {
    values.push_back(fmt::format("{}", value.get<double>()));
  } else {
    values.push_back(value.dump());
  }
  return true;
}

}  // namespace

RequestFields::RequestFields(const std::string& body,
                             std::initializer_list<std::string_view> known) {
  if (body.empty()) {
    return;
  }
  auto json = Parse(body);
  if (!json || !json->is_object()) {
    Blame("", "the body is not valid; give one object of JSON");
    return;
  }
  json_ = *std::move(json);
  for (const auto& [name, value] : json_.items()) {
    if (std::ranges::find(known, name) == known.end()) {
      Blame(QuotedLine(name),
            fmt::format("{}: no such field; give {}", QuotedLine(name), fmt::join(known, ", ")));
    }
  }
}

void RequestFields::Blame(const std::string& field, const std::string& error) {
  if (!error_) {
    error_ = ErrorResponse(HttpStatus::kBadRequest, error, field);
  }
}

const Json* RequestFields::Find(const std::string& name) const {
  const auto found = json_.find(name);
  return error_ || found == json_.end() || found->is_null() ? nullptr : &*found;
}

std::optional<std::string> RequestFields::Text(const std::string& name) {
  const Json* const value = Find(name);
  if (value == nullptr || value->is_string()) {
    return value == nullptr ? std::nullopt : std::optional(value->get<std::string>());
  }
  Blame(name, fmt::format("{}: not valid; give a text", name));
  return std::nullopt;
}

std::optional<double> RequestFields::Number(const std::string& name) {
  const Json* const value = Find(name);
  if (value == nullptr || value->is_number()) {
    return value == nullptr ? std::nullopt : std::optional(value->get<double>());
  }
  Blame(name, fmt::format("{}: not valid; give a number", name));
  return std::nullopt;
}

std::optional<double> RequestFields::BitRate(const std::string& name) {
  const Json* const value = Find(name);
  if (value == nullptr || !value->is_string()) {
    return Number(name);
  }
  const auto rate = ParseBitRate(value->get<std::string>());
  if (!rate) {
    Blame(name, fmt::format("{}: {} is not valid; give a bit rate above 0, as in 9.75M or 38810k",
                            name, TextOf(*value)));
  }
  return rate;
}

std::optional<std::int64_t> RequestFields::Whole(const std::string& name, std::int64_t lowest,
                                                 std::int64_t highest) {
  const Json* const value = Find(name);
  if (value == nullptr) {
    return std::nullopt;
  }
  const bool fits = value->is_number_integer() &&
                    (!value->is_number_unsigned() || value->get<std::uint64_t>() <= INT64_MAX);
  const std::int64_t number = fits ? value->get<std::int64_t>() : 0;
  if (fits && number >= lowest && number <= highest) {
    return number;
  }
  Blame(name,
        fmt::format("{}: {} is not valid; give {} to {}", name, TextOf(*value), lowest, highest));
  return std::nullopt;
}

std::optional<bool> RequestFields::Flag(const std::string& name) {
  const Json* const value = Find(name);
  if (value == nullptr || value->is_boolean()) {
    return value == nullptr ? std::nullopt : std::optional(value->get<bool>());
  }
  Blame(name, fmt::format("{}: not valid; give true or false", name));
  return std::nullopt;
}

std::optional<std::string> RequestFields::Name(const std::string& name) {
  auto text = Text(name);
  if (text && (text->empty() || text->size() > kLongestName || QuotedLine(*text) != *text ||
               *text == "." || *text == "..")) {
    Blame(name, fmt::format("{}: \"{}\" is not valid; give 1 to 100 characters", name,
                            QuotedLine(text->substr(0, kLongestName))));
    return std::nullopt;
  }
  return text;
}

std::optional<std::vector<ChannelOption>> RequestFields::Options(const std::string& name) {
  const Json* const value = Find(name);
  if (value == nullptr) {
    return std::nullopt;
  }
  std::vector<ChannelOption> options;
  if (!value->is_object()) {
    Blame(name,
          fmt::format("{}: not valid; give an object with options by their long names", name));
    return std::nullopt;
  }
  for (const auto& [option, given] : value->items()) {
    std::vector<std::string> values;
    if (!AddValue(given, values)) {
      Blame(fmt::format("{}.{}", name, QuotedLine(option)),
            fmt::format("{}: not valid; give a text, a number, true, false or an array of them",
                        QuotedLine(option)));
      return std::nullopt;
    }
    options.push_back({option, std::move(values)});
  }
  return options;
}

std::string FieldOf(const std::string& sentence) {
  const std::size_t start = sentence.starts_with("--") ? 2 : 0;
  const std::size_t end =
      sentence.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-", start);
  const std::string name = sentence.substr(start, end - start);
  const bool is_option = start == 2 || (end != std::string::npos && sentence[end] == ':');
  return is_option && !name.empty() ? "options." + name : "options";
}

}  // namespace ipplay::serve
