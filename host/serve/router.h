// SPDX-License-Identifier: MIT
// Which request is whose: the paths and methods of docs/openapi.json.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/serve/http_hooks.h"
#include "host/serve/http_message.h"

namespace ipplay::serve {

struct Route {
  // `name` is what stands in the place of {name} or {file}.
  using Handler = std::function<HttpResponse(const HttpRequest& request, const std::string& name)>;

  std::string method;  // "POST"
  std::string path;    // "/api/v1/playouts/{name}/start"; {file} stands for the rest of a path
  Handler handler;
  bool is_quick = false;  // answered on the thread of the server itself
};

class Router {
 public:
  // What takes its time is done on a few threads of its own.
  static constexpr std::size_t kThreads = 8;
  static constexpr std::size_t kMostWaiting = 256;

  explicit Router(std::vector<Route> routes);
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;
  // Waits for what is under way.
  ~Router();

  const std::vector<Route>& Routes() const { return routes_; }

  void Handle(HttpRequest request, HttpHooks::Reply reply);

 private:
  class Workers;

  std::vector<Route> routes_;
  std::unique_ptr<Workers> workers_;
};

}  // namespace ipplay::serve
