// SPDX-License-Identifier: MIT
// How the parts of ipplay report what went wrong: a value, or a line for the user and the exit
// status that goes with it.
#pragma once

#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ipplay {

enum class ExitStatus : int {
  kPlayed = 0,
  kFailed = 1,    // the playout or the measurement failed
  kUsage = 2,     // a refused option, value or input
  kNoAccess = 3,  // no permission, or no such device
};

struct Failure {
  ExitStatus status = ExitStatus::kFailed;
  std::string message;  // one line, without "ipplay:" in front and without a full stop
  std::vector<std::string> details{};  // lines below it
};

template <typename T>
class Result {
 public:
  Result(T value) : content_(std::move(value)) {}
  Result(Failure failure) : content_(std::move(failure)) {}

  explicit operator bool() const { return content_.index() == 0; }
  T& operator*() { return std::get<0>(content_); }
  const T& operator*() const { return std::get<0>(content_); }
  T* operator->() { return &std::get<0>(content_); }
  const T* operator->() const { return &std::get<0>(content_); }
  const Failure& Error() const { return std::get<1>(content_); }

 private:
  std::variant<T, Failure> content_;
};

inline Failure UsageFailure(std::string message) {
  return {ExitStatus::kUsage, std::move(message)};
}

}  // namespace ipplay
