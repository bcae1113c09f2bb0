// SPDX-License-Identifier: MIT
// Texts of service information, EN 300 468, Annex A.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace ipplay::measure {

// UTF-8 without control characters. What cannot be read is a question mark.
std::string DvbText(std::span<const std::uint8_t> text);

// Loads all tables that texts may be written in, which is otherwise done with the first text.
void PrepareDvbText();

}  // namespace ipplay::measure
