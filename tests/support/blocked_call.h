// Whether a call on another thread blocks.
#pragma once

#include <chrono>
#include <future>

namespace ipplayout {

// Cannot fail for being slow: only a call that should block and has returned is caught.
template <typename Result>
bool Blocks(std::future<Result>& call) {
  return call.wait_for(std::chrono::milliseconds(30)) == std::future_status::timeout;
}

// For what would otherwise hang.
template <typename Result>
bool Returns(std::future<Result>& call) {
  return call.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

}  // namespace ipplayout
