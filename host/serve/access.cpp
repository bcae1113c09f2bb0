// SPDX-License-Identifier: MIT
#include "host/serve/access.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "host/base/address.h"
#include "host/base/file_descriptor.h"
#include "host/base/text.h"

namespace ipplay::serve {
namespace {

constexpr std::size_t kLeastToken = 16;
constexpr std::size_t kMostToken = 1024;

// "[::1]:8080" -> "::1", "localhost:8080" -> "localhost"; empty where that is no authority.
std::string_view NameOf(std::string_view authority) {
  const bool has_brackets = authority.starts_with('[');
  const std::size_t end = authority.find(has_brackets ? ']' : ':');
  if (has_brackets && end == std::string_view::npos) {
    return {};
  }
  const std::string_view name = authority.substr(0, end).substr(has_brackets ? 1 : 0);
  const std::string_view rest =
      end == std::string_view::npos ? "" : authority.substr(end + (has_brackets ? 1 : 0));
  const bool is_port =
      rest.empty() || (rest.starts_with(':') && std::ranges::all_of(rest.substr(1), [](char c) {
                         return c >= '0' && c <= '9';
                       }));
  return is_port ? name : std::string_view();
}

// A page that has its name resolved to this machine sends that name (DNS rebinding).
bool IsOurHost(const AccessRules& rules, std::string_view host) {
  const std::string name = LowerCase(NameOf(host));
  return name == "localhost" || rules.hosts.contains(name) || ParseIp(name).has_value();
}

// A browser names the page that asks; ours has the same name as the server.
bool IsFromOtherPage(const HttpRequest& request) {
  const std::string_view origin = request.Header("origin");
  if (!origin.empty()) {
    const std::size_t slashes = origin.find("://");
    return slashes == std::string_view::npos ||
           LowerCase(origin.substr(slashes + 3)) != LowerCase(request.Header("host"));
  }
  // What has no Origin: images, scripts and the like of other pages. A link may be followed.
  const std::string_view site = request.Header("sec-fetch-site");
  return (site == "cross-site" || site == "same-site") &&
         request.Header("sec-fetch-mode") != "navigate";
}

// Takes the same time wherever they differ.
bool IsSame(std::string_view given, std::string_view wanted) {
  unsigned difference = given.size() == wanted.size() ? 0 : 1;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    const char c = given.empty() ? '\0' : given[i % given.size()];
    difference |= static_cast<unsigned char>(c ^ wanted[i]);
  }
  return difference == 0;
}

bool HasToken(const AccessRules& rules, const HttpRequest& request) {
  constexpr std::string_view kScheme = "bearer ";
  const std::string_view given = request.Header("authorization");
  return LowerCase(given.substr(0, kScheme.size())) == kScheme &&
         IsSame(given.substr(kScheme.size()), rules.token);
}

bool IsToken(std::string_view text) {
  return text.size() >= kLeastToken &&
         std::ranges::all_of(text, [](char c) { return c > ' ' && c <= '~'; });
}

}  // namespace

bool IsOfPage(const HttpRequest& request) {
  return request.segments.empty() || request.segments.front() == "page";
}

std::optional<HttpResponse> Refuse(const AccessRules& rules, const HttpRequest& request) {
  const std::string_view host = request.Header("host");
  if (request.repeats_host || !IsOurHost(rules, host)) {
    return ErrorResponse(
        HttpStatus::kForbidden,
        fmt::format("Host: \"{}\" is not a name of this server; use an address, localhost or a "
                    "name given with --host",
                    host));
  }
  if (IsFromOtherPage(request)) {
    return ErrorResponse(HttpStatus::kForbidden,
                         "Origin: a page of another server may not ask this one");
  }
  if (!rules.token.empty() && !IsOfPage(request) && !HasToken(rules, request)) {
    auto response = ErrorResponse(HttpStatus::kUnauthorized,
                                  "Authorization: give \"Bearer TOKEN\" with the server's token");
    response.headers.emplace_back("WWW-Authenticate", "Bearer realm=\"ipplay\"");
    return response;
  }
  return std::nullopt;
}

Result<std::string> ReadToken(const std::string& path) {
  const auto refuse = [&path](const std::string& why) {
    return UsageFailure(fmt::format("--token-file {}: {}", path, why));
  };
  const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (!fd.IsOpen() || ::fstat(fd.Get(), &info) != 0) {
    return refuse(std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode) || (info.st_mode & 077) != 0) {
    return refuse("others may read it; make it a file of mode 0600");
  }
  std::array<char, kMostToken> buffer{};
  const ssize_t length = ::read(fd.Get(), buffer.data(), buffer.size());
  if (length < 0) {
    return refuse(std::strerror(errno));
  }
  std::string_view text(buffer.data(), static_cast<std::size_t>(length));
  if (text.ends_with('\n')) {
    text.remove_suffix(1);
  }
  if (!IsToken(text)) {
    return refuse(
        "not one line of 16 to 1023 letters, digits and signs; make one with `openssl rand -hex "
        "32`");
  }
  return std::string(text);
}

}  // namespace ipplay::serve
