// SPDX-License-Identifier: MIT
// What the timing of a playout is worth saying about.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/play/play_options.h"
#include "ipplayout/playouts.h"

namespace ipplay {

class TimingWatch {
 public:
  explicit TimingWatch(const PlayOptions& options) : options_(options) {}

  // Warnings where it has become much worse than the last ones said.
  std::vector<std::string> Warnings(const IpPlayoutTiming& timing);

  // The limits of the options that it does not keep, at the end.
  std::vector<std::string> Breaches(const IpPlayoutTiming& timing) const;

 private:
  const PlayOptions& options_;
  std::int64_t dry_ns_ = 0;  // these as of the last warning
  std::int64_t lateness_ns_ = 0;
  std::uint64_t refused_frames_ = 0;
};

}  // namespace ipplay
