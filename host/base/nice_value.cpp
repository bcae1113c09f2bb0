// SPDX-License-Identifier: MIT
#include "host/base/nice_value.h"

#include <sys/resource.h>

namespace ipplay {

void RaiseNiceValue(int nice) {
  if (::getpriority(PRIO_PROCESS, 0) < nice) {
    ::setpriority(PRIO_PROCESS, 0, nice);
  }
}

}  // namespace ipplay
