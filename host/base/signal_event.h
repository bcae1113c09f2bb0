// SPDX-License-Identifier: MIT
// A signal as an event that can be waited for, in place of what it does by default.
#pragma once

#include "host/base/file_descriptor.h"

namespace ipplay {

class SignalEvent {
 public:
  // Create it before other threads start: it blocks the signal, and they inherit that.
  explicit SignalEvent(int signal);

  // Readable when the signal has come.
  int Get() const { return fd_.Get(); }
  // Whether it has since the last call.
  bool Take() const;

 private:
  FileDescriptor fd_;
};

}  // namespace ipplay
