// SPDX-License-Identifier: MIT
// What somebody may have meant who mistyped a word.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace ipplay {

// The candidate that is nearest by letters left out, put in, exchanged or in the wrong order; empty
// where none is near.
std::string NearMiss(std::string_view word, std::span<const std::string> candidates);

}  // namespace ipplay
