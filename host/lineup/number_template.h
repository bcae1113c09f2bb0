// SPDX-License-Identifier: MIT
// Texts of a numbered series: "239.1.{n/250}.{n%250+1}" for each number n.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace ipplay {

// {n}, with any of + - * / % and whole numbers behind it, worked out from left to right, and with
// :WIDTH filled with zeros.
Result<std::string> ExpandTemplate(std::string_view text, std::int64_t n);

}  // namespace ipplay
