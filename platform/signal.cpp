#include "platform/signal.h"

#include "platform/futex.h"

namespace ipplayout::platform {

void Signal::Set() {
  if (state_.exchange(kSet) == kClearWithSleeper) {
    FutexWakeAll(state_);
  }
}

void Signal::Reset() {
  std::uint32_t expected = kSet;
  state_.compare_exchange_strong(expected, kClear);
}

void Signal::Wait() {
  for (;;) {
    std::uint32_t state = state_.load();
    if (state == kSet) {
      return;
    }
    if (state == kClear && !state_.compare_exchange_strong(state, kClearWithSleeper)) {
      continue;
    }
    FutexWait(state_, kClearWithSleeper);
  }
}

}  // namespace ipplayout::platform
