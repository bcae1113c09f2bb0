// SPDX-License-Identifier: MIT
// The summary as JSON. Names carry their units: _ns, _bps (bits per second), _ppm, _bytes.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "host/measure/results/limits.h"
#include "host/measure/results/summary.h"

namespace ipplay::measure {

// Hands the text over part by part, so that the streams of a large summary never stand in memory
// all at once.
void WriteJson(const Summary& summary, std::span<const Verdict> verdicts,
               const std::function<void(std::string_view)>& write);
std::string JsonText(const Summary& summary, std::span<const Verdict> verdicts);

}  // namespace ipplay::measure
