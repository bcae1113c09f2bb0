// SPDX-License-Identifier: MIT
// The faults that were ordered of a playout, until it says what it has done.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/play/play_values.h"
#include "host/play/playing.h"
#include "ipplayout/playouts.h"

namespace ipplay {

class OrderedFaults {
 public:
  struct Done {
    IpPlayoutDone done;
    ActionKind kind;
    std::string by;  // whose order it was
  };

  explicit OrderedFaults(Playing& playing) : playing_(playing) {}

  // For the datagrams from `at` on. Why it is refused; nothing when it is not.
  std::optional<std::string> Order(const Action& action, std::chrono::nanoseconds at,
                                   const std::string& by);
  // What has been done since the last call.
  std::vector<Done> TakeDone();
  bool Any() const { return orders_ > 0; }

 private:
  struct Waiting {
    ActionKind kind;
    std::string by;
  };

  Playing& playing_;
  std::map<std::uint64_t, Waiting> waiting_;  // by number
  std::uint64_t orders_ = 0;
};

}  // namespace ipplay
