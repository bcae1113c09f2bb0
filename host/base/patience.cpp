// SPDX-License-Identifier: MIT
#include "host/base/patience.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include "host/base/library_output.h"

namespace ipplay {

Patience::Patience(std::string line)
    : thread_([this, line = std::move(line)] {
        constexpr std::chrono::seconds kLong(1);
        std::unique_lock lock(mutex_);
        if (!ended_.wait_for(lock, kLong, [this] { return has_ended_; })) {
          Print(stderr, "ipplay: {}\n", line);
        }
      }) {}

Patience::~Patience() {
  {
    const std::lock_guard lock(mutex_);
    has_ended_ = true;
  }
  ended_.notify_all();
  thread_.join();
}

}  // namespace ipplay
