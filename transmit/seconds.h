// SPDX-License-Identifier: MIT
// Times of the schedule. Floating point, since a gap is rarely a whole number of nanoseconds.
#pragma once

#include <chrono>

namespace ipplayout {

using Seconds = std::chrono::duration<double>;

}  // namespace ipplayout
