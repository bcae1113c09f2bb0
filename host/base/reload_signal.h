// SPDX-License-Identifier: MIT
// SIGHUP as the wish to read the configuration again, where a command has one; elsewhere it is a
// wish to stop (StopSignals).
#pragma once

#include "host/base/file_descriptor.h"

namespace ipplay {

class ReloadSignal {
 public:
  // Create it before other threads start.
  ReloadSignal();

  // Readable when the signal has come.
  int Get() const { return fd_.Get(); }
  // Whether it has since the last call.
  bool Take() const;

 private:
  FileDescriptor fd_;
};

}  // namespace ipplay
