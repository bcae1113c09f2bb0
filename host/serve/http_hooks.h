// SPDX-License-Identifier: MIT
// What a server of HTTP leaves to others, and the bounds of what clients take.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "host/serve/http_message.h"

namespace ipplay::serve {

struct HttpLimits {
  std::size_t connections = 256;  // beyond, the one that has waited longest for its client goes
  std::size_t event_streams = 64;
  std::uint32_t header_bytes = 16 << 10;
  std::uint64_t body_bytes = 1 << 20;
  // For a whole header, for a whole body, and for the client to take a response or some events.
  std::chrono::seconds header_time{15};
  std::chrono::seconds body_time{15};
  std::chrono::seconds response_time{30};
};

struct HttpHooks {
  using Reply = std::function<void(HttpResponse)>;  // once, on any thread

  // Looks at the header before the body is read.
  std::function<std::optional<HttpResponse>(const HttpRequest&)> check;
  // On the server's thread; soon replies, or has others reply.
  std::function<void(HttpRequest, Reply)> handle;
  std::function<void()> each_second;
};

}  // namespace ipplay::serve
