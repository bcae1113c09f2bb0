// SPDX-License-Identifier: MIT
// SIGCONT as an event: the job goes on after it was stopped.
#pragma once

#include "host/base/file_descriptor.h"

namespace ipplay {

class ContinueSignal {
 public:
  // Create it before other threads start.
  ContinueSignal();

  // Readable when the job has gone on.
  int Get() const { return fd_.Get(); }
  // Whether it has since the last call.
  bool Take() const;

 private:
  FileDescriptor fd_;
};

}  // namespace ipplay
