// SPDX-License-Identifier: MIT
// Events in words.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/measure/figures/event.h"

namespace ipplay::measure {

// One word for programs, as docs/json.md has it.
const char* EventName(EventKind kind);

// What its amount is, by the name that it has there; none where it has no meaning.
struct EventFigure {
  const char* name;
  std::int64_t value;
};
std::optional<EventFigure> FigureOf(const Event& event);

std::string EventText(const Event& event);

}  // namespace ipplay::measure
