// SPDX-License-Identifier: MIT
#include "host/play/control.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace ipplay {
namespace {

using nlohmann::json;

constexpr const char* kAllowed =
    "give {\"do\": ACTION} with status, lose[:N], delay[:D], duplicate[:N], corrupt[:BITS], "
    "bad-ip-checksum[:N], bad-udp-checksum[:N], break:TIME, pause[:TIME], resume or stop; or "
    "{\"do\": \"rate\", \"bitrate\": \"5M\"}, or jitter or errors with values of the options";

// A client's own number or text comes back as it is; anything else does not.
std::string IdOf(const json& object) {
  const auto id = object.find("id");
  const bool is_plain = id != object.end() && (id->is_number_integer() || id->is_string());
  return is_plain ? id->dump(-1, ' ', true, json::error_handler_t::replace) : "";
}

// Values as on the command line: a text, or a number.
std::variant<Action, ChangeRequest, AskStatus, std::string> ParseChange(const std::string& what,
                                                                        const json& object) {
  ChangeRequest request{what, {}};
  for (const auto& [name, value] : object.items()) {
    if (name == "do" || name == "id") {
      continue;
    }
    if (!value.is_string() && !value.is_number()) {
      return fmt::format("\"{}\" is no text and no number; give its value as on the command line",
                         name);
    }
    request.fields.emplace_back(name, value.is_string() ? value.get<std::string>() : value.dump());
  }
  return request;
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
  const auto text = what->get<std::string>();
  if (IsChange(text)) {
    order.what = ParseChange(text, object);
    return order;
  }
  for (const auto& [name, value] : object.items()) {
    if (name != "do" && name != "id") {
      order.what = std::string("there is more than \"do\" and \"id\"; ") + kAllowed;
      return order;
    }
  }
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

std::string Changed(const ControlOrder& order, const ChangeRequest& request,
                    std::chrono::nanoseconds at, double rate) {
  json changed = json::object();
  for (const auto& [name, value] : request.fields) {
    changed[name] = value;
  }
  return fmt::format("{},\"at_ns\":{},\"set_rate_bps\":{},\"changed\":{}}}", Head(order, true),
                     at.count(), json(rate).dump(),
                     changed.dump(-1, ' ', true, json::error_handler_t::replace));
}

std::string Accepted(const ControlOrder& order) {
  return Head(order, true) + "}";
}

std::string Refused(const ControlOrder& order, std::string_view why) {
  return fmt::format("{},\"error\":{}}}", Head(order, false),
                     json(why).dump(-1, ' ', true, json::error_handler_t::replace));
}

std::string WithStatus(const ControlOrder& order, std::string_view status) {
  return fmt::format("{},\"status\":{}}}", Head(order, true), status);
}

}  // namespace ipplay
