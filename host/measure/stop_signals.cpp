// SPDX-License-Identifier: MIT
#include "host/measure/stop_signals.h"

#include <csignal>
#include <cstddef>
#include <iterator>

namespace ipplay::measure {
namespace {

volatile std::sig_atomic_t stop_came = 0;

void OnStop(int) {
  stop_came = 1;
}

}  // namespace

StopSignals::StopSignals() {
  stop_came = 0;
  struct sigaction action {};
  action.sa_handler = OnStop;
  // No SA_RESTART: a wait for frames ends at once.
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (std::size_t i = 0; i < std::size(kSignals); ++i) {
    ::sigaction(kSignals[i], &action, &before_[i]);
  }
}

StopSignals::~StopSignals() {
  for (std::size_t i = 0; i < std::size(kSignals); ++i) {
    ::sigaction(kSignals[i], &before_[i], nullptr);
  }
}

bool StopSignals::Came() const {
  return stop_came != 0;
}

}  // namespace ipplay::measure
