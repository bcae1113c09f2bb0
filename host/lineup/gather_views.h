// SPDX-License-Identifier: MIT
// The gathered result as JSON, as a table and as a page.
#pragma once

#include <span>
#include <string>

#include "host/lineup/gathered.h"

namespace ipplay {

// `wrong`: what FindFailures and FindUnmet found.
std::string GatheredJson(const Gathered& gathered, std::span<const std::string> wrong);
std::string GatheredTable(const Gathered& gathered, std::span<const std::string> wrong);

std::string GatheredPage(const Gathered& gathered, std::span<const std::string> wrong);

}  // namespace ipplay
