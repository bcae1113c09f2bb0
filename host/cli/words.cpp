// SPDX-License-Identifier: MIT
#include "host/cli/words.h"

namespace ipplay {

std::vector<std::string> AsOptions(std::vector<std::string> words) {
  if (!words.empty() && words.front() == "help") {
    words.erase(words.begin());
    words.emplace_back("--help");
  } else if (!words.empty() && words.front() == "version") {
    words.front() = "--version";
  }
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    const std::size_t space = words[i + 1].find(' ');
    if (words[i] == "--at" && space != std::string::npos) {
      const std::string what = words[i + 1].substr(space + 1);
      words[i + 1].resize(space);
      words.insert(words.begin() + static_cast<std::ptrdiff_t>(i) + 2, what);
    }
  }
  return words;
}

}  // namespace ipplay
