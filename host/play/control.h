// SPDX-License-Identifier: MIT
// What programs order on the control socket of a playout, and what they are answered: JSON objects,
// a line each.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <variant>

#include "host/play/changes.h"
#include "host/play/play_values.h"

namespace ipplay {

struct AskStatus {};

struct ControlOrder {
  std::string id;  // of the client's own, as JSON, and answered with; empty for none
  // An action as in --at, a question, or why the line is refused.
  std::variant<Action, ChangeRequest, AskStatus, std::string> what;
};

// {"do": "lose:4", "id": 7}: any action of --at, or "status"; or {"do": "rate", "bitrate": "5M"},
// which ChangeRequest stands for. Whatever the line is.
ControlOrder ParseControl(std::string_view line);

std::string Accepted(const ControlOrder& order);
std::string Refused(const ControlOrder& order, std::string_view why);
// What was changed, from `at` after the start on, at what bit rate.
std::string Changed(const ControlOrder& order, const ChangeRequest& request,
                    std::chrono::nanoseconds at, double rate);
// `status` is an object as --json prints it.
std::string WithStatus(const ControlOrder& order, std::string_view status);

}  // namespace ipplay
