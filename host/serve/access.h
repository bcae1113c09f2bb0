// SPDX-License-Identifier: MIT
// Who may ask: names under which the server is known, pages that may call it, and the token.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "host/base/result.h"
#include "host/serve/http_message.h"

namespace ipplay::serve {

struct AccessRules {
  // Allowed besides localhost and numeric addresses, to which no page can rebind its own name.
  std::set<std::string> hosts;
  std::string token;  // empty: none is needed
};

// Whether the path is one of the page, which holds no secret and asks for the token itself.
bool IsOfPage(const HttpRequest& request);

// What to answer instead, if the request is refused. Looks at headers alone.
std::optional<HttpResponse> Refuse(const AccessRules& rules, const HttpRequest& request);

// The only line of a file that nobody but its owner may read.
Result<std::string> ReadToken(const std::string& path);

}  // namespace ipplay::serve
