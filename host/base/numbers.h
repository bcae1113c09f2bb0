// SPDX-License-Identifier: MIT
// Numbers and texts as users write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ipplay {

// A number in decimal or, after 0x, in hex, between two limits.
std::optional<std::uint64_t> ParseNumber(std::string_view text, std::uint64_t lowest,
                                         std::uint64_t highest);

// Whether `text` is a whole number of any size, with or without a minus sign.
bool IsWholeNumber(std::string_view text);

// Any non-empty text.
std::optional<std::string> ParseText(std::string_view text);

}  // namespace ipplay
