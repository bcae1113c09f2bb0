// SPDX-License-Identifier: MIT
// Calls that block, or should not.
#pragma once

#include <chrono>
#include <future>
#include <utility>

namespace ipplayout {

template <typename Call>
auto OnAnotherThread(Call call) {
  return std::async(std::launch::async, std::move(call));
}

// Cannot fail for being slow: only a call that should block and has returned is caught.
template <typename Result>
bool Blocks(std::future<Result>& call) {
  return call.wait_for(std::chrono::milliseconds(30)) == std::future_status::timeout;
}

// For what would otherwise hang.
template <typename Result>
bool Returns(std::future<Result>& call) {
  return call.wait_for(std::chrono::minutes(2)) == std::future_status::ready;
}

}  // namespace ipplayout
