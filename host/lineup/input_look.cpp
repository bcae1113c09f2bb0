// SPDX-License-Identifier: MIT
#include "host/lineup/input_look.h"

#include <utility>

#include "host/base/capabilities.h"
#include "host/stream/live_source.h"

namespace ipplay {

InputLook::InputLook(const PlayOptions& options, std::function<void()> came)
    : options_(options), came_(std::move(came)), thread_(&InputLook::Run, this) {}

InputLook::~InputLook() {
  if (thread_.joinable()) {
    stop_reading_->Set();
    thread_.join();
  }
}

void InputLook::Run() {
  if (IsLiveAddress(options_.input)) {
    KeepCapabilities({});
  } else {
    KeepCapabilities({kCapDacOverride});  // root reads pipes of all
  }
  opened_ = LookAtInput(options_, stop_reading_->Get());
  came_();
}

Result<Opened> InputLook::Take() {
  thread_.join();
  return *std::move(opened_);
}

}  // namespace ipplay
