// SPDX-License-Identifier: MIT
// A flag that a thread, or the library, sets once and that others can wait for as a descriptor.
#pragma once

#include "host/base/file_descriptor.h"

namespace ipplay {

class Event {
 public:
  Event();

  // Readable once the event is set.
  int Get() const { return fd_.Get(); }
  void Set() const;

 private:
  FileDescriptor fd_;
};

}  // namespace ipplay
