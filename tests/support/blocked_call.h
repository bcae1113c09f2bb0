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

// Of a race whose sides wait for each other: so many, or as many as a busy machine, on which each
// takes milliseconds, gets through in a while.
class Rounds {
 public:
  explicit Rounds(int most) : left_(most) {}

  bool GoOn() { return left_-- > 0 && std::chrono::steady_clock::now() < end_; }

 private:
  int left_;
  const std::chrono::steady_clock::time_point end_ =
      std::chrono::steady_clock::now() + std::chrono::seconds(20);
};

}  // namespace ipplayout
