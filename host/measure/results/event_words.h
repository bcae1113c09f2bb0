// SPDX-License-Identifier: MIT
// Events in words.
#pragma once

#include <string>

#include "host/measure/figures/event.h"

namespace ipplay::measure {

std::string EventText(const Event& event);

}  // namespace ipplay::measure
