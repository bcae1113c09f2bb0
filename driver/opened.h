// SPDX-License-Identifier: MIT
// What comes of opening something.
#pragma once

#include <memory>

namespace ipplayout {

// Either what was opened, or what failed and why.
template <typename T>
struct Opened {
  std::unique_ptr<T> value;
  int error = 0;          // system error number
  const char* step = "";  // what could not be done, to stand behind "cannot"
};

template <typename T>
Opened<T> NotOpened(const char* step, int error) {
  return {nullptr, error, step};
}

}  // namespace ipplayout
