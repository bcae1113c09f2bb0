// SPDX-License-Identifier: MIT
#include "host/play/control.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace ipplay {
namespace {

using nlohmann::json;

constexpr const char* kAllowed =
    "give {\"do\": ACTION} with status, lose[:N], delay[:D], duplicate[:N], corrupt[:BITS], "
    "bad-ip-checksum[:N], bad-udp-checksum[:N], break:TIME, pause[:TIME], resume or stop";

// A client's own number or text comes back as it is; anything else does not.
std::string IdOf(const json& object) {
  const auto id = object.find("id");
  const bool is_plain = id != object.end() && (id->is_number_integer() || id->is_string());
  return is_plain ? id->dump(-1, ' ', true, json::error_handler_t::replace) : "";
}

std::string Head(const ControlOrder& order, bool ok) {
  return fmt::format("{{{}\"ok\":{}", order.id.empty() ? "" : "\"id\":" + order.id + ",", ok);
}

}  // namespace

ControlOrder ParseControl(std::string_view line) {
  // Whatever is nested deeper than this is not read, which bounds the work.
  constexpr int kDepth = 2;
  const json object = json::parse(
      line, [](int depth, json::parse_event_t, json&) { return depth <= kDepth; }, false);
  if (!object.is_object()) {
    return {{}, std::string("no JSON object; ") + kAllowed};
  }
  ControlOrder order{IdOf(object), AskStatus{}};
  const auto what = object.find("do");
  if (what == object.end() || !what->is_string()) {
    order.what = std::string("\"do\" is missing or no text; ") + kAllowed;
    return order;
  }
  for (const auto& [name, value] : object.items()) {
    if (name != "do" && name != "id") {
      order.what = std::string("there is more than \"do\" and \"id\"; ") + kAllowed;
      return order;
    }
  }
  const auto text = what->get<std::string>();
  if (text == "status") {
    return order;
  }
  if (const auto action = ParseAction(text)) {
    order.what = *action;
  } else {
    order.what = std::string("\"do\" has no action; ") + kAllowed;
  }
  return order;
}

std::string Accepted(const ControlOrder& order) {
  return Head(order, true) + "}";
}

std::string Refused(const ControlOrder& order, std::string_view why) {
  return fmt::format("{},\"error\":{}}}", Head(order, false),
                     json(why).dump(-1, ' ', true, json::error_handler_t::replace));
}

std::string Told(const ControlOrder& order, std::string_view status) {
  return fmt::format("{},\"status\":{}}}", Head(order, true), status);
}

}  // namespace ipplay
