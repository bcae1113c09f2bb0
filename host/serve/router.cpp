// SPDX-License-Identifier: MIT
#include "host/serve/router.h"

#include <fmt/format.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <exception>
#include <optional>
#include <utility>

#include "host/base/text.h"

namespace ipplay::serve {
namespace {

// What stands for {name} or {file}, empty without either; none where the path is another one.
std::optional<std::string> Match(std::string_view pattern, const HttpRequest& request) {
  std::string name;
  std::size_t place = 0;
  pattern.remove_prefix(1);
  while (!pattern.empty()) {
    const std::string_view part = pattern.substr(0, pattern.find('/'));
    pattern.remove_prefix(std::min(part.size() + 1, pattern.size()));
    if (place >= request.segments.size()) {
      return std::nullopt;
    }
    if (part == "{file}") {
      return fmt::format("{}",
                         fmt::join(request.segments.begin() + static_cast<std::ptrdiff_t>(place),
                                   request.segments.end(), "/"));
    }
    if (part == "{name}") {
      name = request.segments[place];
    } else if (part != request.segments[place]) {
      return std::nullopt;
    }
    ++place;
  }
  return place == request.segments.size() ? std::optional(name) : std::nullopt;
}

// A body is JSON, which no form of another page can send.
std::optional<HttpResponse> RefuseType(const HttpRequest& request) {
  const std::string_view type = request.Header("content-type");
  const bool is_json = LowerCase(type.substr(0, type.find(';'))) == "application/json";
  if (request.body.empty() || is_json) {
    return std::nullopt;
  }
  return ErrorResponse(HttpStatus::kWrongType,
                       "Content-Type: not application/json; give the body as JSON");
}

HttpResponse Run(const Route& route, const HttpRequest& request, const std::string& name) {
  try {
    return route.handler(request, name);
  } catch (const std::exception& error) {
    return ErrorResponse(HttpStatus::kInternalError, error.what());
  }
}

}  // namespace

class Router::Workers {
 public:
  // False where too much waits already.
  bool Post(std::function<void()> task) {
    if (waiting_.fetch_add(1) >= kMostWaiting) {
      waiting_.fetch_sub(1);
      return false;
    }
    boost::asio::post(pool_, [this, task = std::move(task)] {
      waiting_.fetch_sub(1);
      task();
    });
    return true;
  }
  void Join() { pool_.join(); }

 private:
  std::atomic<std::size_t> waiting_{0};
  boost::asio::thread_pool pool_{kThreads};
};

Router::Router(std::vector<Route> routes)
    : routes_(std::move(routes)), workers_(std::make_unique<Workers>()) {}

Router::~Router() {
  workers_->Join();
}

void Router::Handle(HttpRequest request, HttpHooks::Reply reply) {
  std::vector<std::string> allowed;
  for (const Route& route : routes_) {
    const auto name = Match(route.path, request);
    if (!name) {
      continue;
    }
    if (route.method != request.method) {
      allowed.push_back(route.method);
      continue;
    }
    if (auto refusal = RefuseType(request)) {
      reply(*std::move(refusal));
    } else if (route.is_quick) {
      reply(Run(route, request, *name));
    } else if (!workers_->Post([&route, request = std::move(request), name = *name, reply] {
                 reply(Run(route, request, name));
               })) {
      reply(ErrorResponse(HttpStatus::kTooBusy, "the server is busy; ask again later"));
    }
    return;
  }
  if (allowed.empty()) {
    reply(ErrorResponse(HttpStatus::kNotFound, "there is nothing at this path"));
    return;
  }
  auto response = ErrorResponse(
      HttpStatus::kMethodNotAllowed,
      fmt::format("{}: not here; use {}", request.method, fmt::join(allowed, " or ")));
  response.headers.emplace_back("Allow", fmt::format("{}", fmt::join(allowed, ", ")));
  reply(std::move(response));
}

}  // namespace ipplay::serve
