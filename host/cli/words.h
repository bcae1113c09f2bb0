// SPDX-License-Identifier: MIT
// Words of the command line that stand for others.
#pragma once

#include <string>
#include <vector>

namespace ipplay {

// "help play" is "play --help", "version" is "--version", and what "--at" has in quotes is two
// words.
std::vector<std::string> AsOptions(std::vector<std::string> words);

}  // namespace ipplay
