// SPDX-License-Identifier: MIT
// The result of a measurement in plain words, a few lines for each stream.
#pragma once

#include <span>
#include <string>

#include "host/measure/results/limits.h"
#include "host/measure/results/summary.h"

namespace ipplay::measure {

std::string PlainWords(const Summary& summary, std::span<const Verdict> verdicts);

}  // namespace ipplay::measure
