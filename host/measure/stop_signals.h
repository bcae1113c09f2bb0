// SPDX-License-Identifier: MIT
// Ctrl-C and its like, as a flag; the second one ends the process as usual.
#pragma once

#include <signal.h>

namespace ipplay::measure {

class StopSignals {
 public:
  // Takes SIGINT, SIGTERM and SIGHUP. One object at a time.
  StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  // Gives them back.
  ~StopSignals();

  bool Came() const;

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

  struct sigaction before_[3];
};

}  // namespace ipplay::measure
