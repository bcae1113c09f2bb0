// SPDX-License-Identifier: MIT
// What comes of opening a destination of frames.
#pragma once

#include <memory>
#include <utility>

namespace ipplayout {

// Either a sink, or what failed and why.
template <typename Sink>
struct OpenedSink {
  std::unique_ptr<Sink> sink;
  int error = 0;          // system error number
  const char* step = "";  // what could not be done, as in "cannot <step>"
};

template <typename Sink>
OpenedSink<Sink> NotOpened(const char* step, int error) {
  return {nullptr, error, step};
}

}  // namespace ipplayout
