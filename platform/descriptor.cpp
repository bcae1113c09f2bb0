// SPDX-License-Identifier: MIT
#include "platform/descriptor.h"

#include <unistd.h>

namespace ipplayout::platform {

Descriptor::~Descriptor() {
  if (IsOpen()) {
    ::close(value_);
  }
}

}  // namespace ipplayout::platform
