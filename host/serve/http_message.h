// SPDX-License-Identifier: MIT
// Requests and responses of HTTP as the rest of the server sees them, without the library that
// reads and writes them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/json.h"
#include "host/base/result.h"

namespace ipplay::serve {

struct HttpRequest {
  std::string method;                 // "GET"
  std::vector<std::string> segments;  // of the path, decoded; none for "/"
  std::map<std::string, std::string> query;
  std::map<std::string, std::string> headers;  // names in lower case; the first of each
  bool repeats_host = false;                   // more than one Host
  bool has_unknown_length = false;             // by a Transfer-Encoding other than chunked
  std::string body;

  // Empty where there is none.
  std::string_view Header(const std::string& name) const;
};

enum class HttpStatus : unsigned {
  kOk = 200,
  kCreated = 201,
  kNoContent = 204,
  kNotModified = 304,
  kBadRequest = 400,
  kUnauthorized = 401,
  kForbidden = 403,
  kNotFound = 404,
  kMethodNotAllowed = 405,
  kConflict = 409,
  kTooLarge = 413,
  kWrongType = 415,
  kTooMany = 429,
  kHeaderTooLarge = 431,
  kInternalError = 500,
  kTooBusy = 503,
};

struct HttpResponse {
  HttpStatus status = HttpStatus::kOk;
  std::string content_type = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  // The response is the stream of events from this one on, and has no end.
  std::optional<std::uint64_t> events_from;
};

// Takes "/a%20b/c?x=1" apart into `request`. False where that is no path.
bool ParseTarget(std::string_view target, HttpRequest& request);

HttpResponse JsonResponse(const Json& json, HttpStatus status = HttpStatus::kOk);
// `field` is that of the request that is wrong; empty where it is none.
HttpResponse ErrorResponse(HttpStatus status, const std::string& error,
                           const std::string& field = {},
                           const std::vector<std::string>& details = {});
// A refused value is the request's fault, all else is the state of things.
HttpResponse FailureResponse(const Failure& failure, const std::string& field = {});

HttpResponse NoSuch(const std::string& kind, const std::string& name);
HttpResponse NoContent();
// As a part of a path or query (RFC 3986, 2.1).
std::string Encoded(std::string_view text);
// Of one thing: "/api/v1/COLLECTION/NAME", encoded.
std::string AddressOf(const std::string& collection, const std::string& name);

}  // namespace ipplay::serve
