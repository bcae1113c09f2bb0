// SPDX-License-Identifier: MIT
// HTTP on one thread: connections, their bounds and their time limits, and streams of events.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/serve/event_feed.h"
#include "host/serve/http_hooks.h"

namespace ipplay::serve {

class HttpServer {
 public:
  // Binds at once. "127.0.0.1:8080", "[::1]:0"; the failure says what is wrong with it.
  static Result<std::unique_ptr<HttpServer>> Listen(const std::string& address,
                                                    const HttpLimits& limits);
  virtual ~HttpServer() = default;

  // With the port that was chosen for 0.
  virtual std::string Address() const = 0;
  // Until `stop_fd` is readable. Replies may come until the server is destroyed.
  virtual void Run(HttpHooks hooks, EventFeed& feed, int stop_fd) = 0;
};

// ADDRESS:PORT; none where it is neither.
struct ListenAddress {
  std::string address;
  std::uint16_t port = 0;
  bool is_loopback = false;
};
std::optional<ListenAddress> ParseListenAddress(const std::string& text);

}  // namespace ipplay::serve
