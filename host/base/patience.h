// SPDX-License-Identifier: MIT
// A word to people while something takes long.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace ipplay {

// Prints "ipplay: LINE" on standard error once a second has passed, unless it is gone before.
class Patience {
 public:
  explicit Patience(std::string line);
  Patience(const Patience&) = delete;
  Patience& operator=(const Patience&) = delete;
  ~Patience();

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  bool has_ended_ = false;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace ipplay
