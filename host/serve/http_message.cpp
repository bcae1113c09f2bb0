// SPDX-License-Identifier: MIT
#include "host/serve/http_message.h"

#include <fmt/format.h>

#include "host/base/json.h"

namespace ipplay::serve {
namespace {

std::optional<unsigned> HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? std::optional<unsigned>(lower - 'a' + 10) : std::nullopt;
}

// Percent-encoding (RFC 3986, 2.1). None where it is broken, or hides a zero byte.
std::optional<std::string> Decode(std::string_view text, bool is_query) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      const auto high = i + 2 < text.size() ? HexDigit(text[i + 1]) : std::nullopt;
      const auto low = high ? HexDigit(text[i + 2]) : std::nullopt;
      if (!low) {
        return std::nullopt;
      }
      c = static_cast<char>(*high << 4 | *low);
      i += 2;
    } else if (is_query && c == '+') {
      c = ' ';
    }
    if (c == '\0') {
      return std::nullopt;
    }
    decoded.push_back(c);
  }
  return decoded;
}

// Calls `take` with each part between separators; false as soon as that returns false.
template <typename Take>
bool Split(std::string_view text, char separator, const Take& take) {
  while (true) {
    const std::size_t end = text.find(separator);
    if (!take(text.substr(0, end))) {
      return false;
    }
    if (end == std::string_view::npos) {
      return true;
    }
    text.remove_prefix(end + 1);
  }
}

bool ParseQuery(std::string_view text, HttpRequest& request) {
  return text.empty() || Split(text, '&', [&request](std::string_view part) {
           const std::size_t equals = part.find('=');
           const auto name = Decode(part.substr(0, equals), true);
           const auto value = equals == std::string_view::npos
                                  ? std::optional<std::string>("")
                                  : Decode(part.substr(equals + 1), true);
           if (name && value) {
             request.query.emplace(*name, *value);
           }
           return name && value;
         });
}

}  // namespace

std::string_view HttpRequest::Header(const std::string& name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? std::string_view() : found->second;
}

bool ParseTarget(std::string_view target, HttpRequest& request) {
  if (!target.starts_with('/')) {
    return false;
  }
  const std::size_t question = target.find('?');
  const std::string_view path = target.substr(0, question).substr(1);
  if (question != std::string_view::npos && !ParseQuery(target.substr(question + 1), request)) {
    return false;
  }
  return path.empty() || Split(path, '/', [&request](std::string_view part) {
           const auto segment = Decode(part, false);
           if (!segment || segment->empty() || *segment == "." || *segment == "..") {
             return false;
           }
           request.segments.push_back(*segment);
           return true;
         });
}

HttpResponse JsonResponse(const Json& json, HttpStatus status) {
  HttpResponse response;
  response.status = status;
  response.body = TextOf(json) + "\n";
  return response;
}

HttpResponse ErrorResponse(HttpStatus status, const std::string& error, const std::string& field,
                           const std::vector<std::string>& details) {
  Json json{{"error", error}};
  if (!field.empty()) {
    json["field"] = field;
  }
  if (!details.empty()) {
    json["details"] = details;
  }
  return JsonResponse(json, status);
}

HttpResponse FailureResponse(const Failure& failure, const std::string& field) {
  const bool refused = failure.status == ExitStatus::kUsage;
  return ErrorResponse(refused ? HttpStatus::kBadRequest : HttpStatus::kConflict, failure.message,
                       field, failure.details);
}

HttpResponse NoSuch(const std::string& kind, const std::string& name) {
  return ErrorResponse(HttpStatus::kNotFound, fmt::format("{}: no such {}", name, kind));
}

HttpResponse NoContent() {
  HttpResponse response;
  response.status = HttpStatus::kNoContent;
  return response;
}

std::string Encoded(std::string_view text) {
  std::string encoded;
  for (const char c : text) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '.' || c == '_';
    encoded += plain ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return encoded;
}

std::string AddressOf(const std::string& collection, const std::string& name) {
  return fmt::format("/api/v1/{}/{}", collection, Encoded(name));
}

}  // namespace ipplay::serve
