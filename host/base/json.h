// SPDX-License-Identifier: MIT
// JSON whose fields stay in the order in which they are written.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace ipplay {

using Json = nlohmann::ordered_json;

// Of every document: grows when a field of any is renamed or removed; see docs/json.md.
inline constexpr int kJsonSchema = 1;

template <typename T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json();
}

// The library's -1 stands for what was not measured.
inline Json TimeOrNull(std::int64_t ns) {
  return ns < 0 ? Json() : Json(ns);
}

// On one line, or on many with this indent. Names of files need not be UTF-8: what is not is
// replaced.
inline std::string TextOf(const Json& json, int indent = -1) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace ipplay
