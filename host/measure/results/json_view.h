// SPDX-License-Identifier: MIT
// The summary as JSON. Names carry their units: _ns, _bps (bits per second), _ppm, _bytes.
#pragma once

#include <span>
#include <string>

#include "host/measure/results/limits.h"
#include "host/measure/results/summary.h"

namespace ipplay::measure {

std::string JsonText(const Summary& summary, std::span<const Verdict> verdicts);

}  // namespace ipplay::measure
