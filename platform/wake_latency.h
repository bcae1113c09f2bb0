// SPDX-License-Identifier: MIT
// Keeping the processors ready to wake up.
#pragma once

#include "platform/descriptor.h"

namespace ipplayout::platform {

// While it exists idle processors do not fall asleep, where the system lets the process ask for
// that
// (/dev/cpu_dma_latency, for root); elsewhere it does nothing. Waking a sleeping processor takes
// tens of microseconds on a virtual machine, and some on any. Source:
// https://docs.kernel.org/power/pm_qos_interface.html
class ShortWakeUps {
 public:
  ShortWakeUps();

 private:
  Descriptor request_;  // holds for as long as it is open
};

}  // namespace ipplayout::platform
