// SPDX-License-Identifier: MIT
// The header of a request, out of the form in which the library has read it.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "host/base/text.h"
#include "host/serve/http_message.h"

namespace ipplay::serve {

// Everything but the body. False where the target is no path.
template <typename Header>
bool TakeHeader(const Header& header, HttpRequest& request) {
  const auto text = [](const auto& view) { return std::string(view.data(), view.size()); };
  request = {};
  request.method = text(header.method_string());
  for (const auto& field : header) {
    std::string name = LowerCase(text(field.name_string()));
    // What is not chunked at last has no end that can be told from the next request (RFC
    // 9112, 6.3).
    request.has_unknown_length |=
        name == "transfer-encoding" && LowerCase(text(field.value())) != "chunked";
    request.repeats_host |= name == "host" && request.headers.contains(name);
    request.headers.emplace(std::move(name), text(field.value()));
  }
  return ParseTarget(text(header.target()), request);
}

}  // namespace ipplay::serve
