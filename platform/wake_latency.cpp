// SPDX-License-Identifier: MIT
#include "platform/wake_latency.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

namespace ipplayout::platform {

ShortWakeUps::ShortWakeUps()
    : request_(AboveStandard(Descriptor(::open("/dev/cpu_dma_latency", O_WRONLY | O_CLOEXEC)))) {
  constexpr std::int32_t kMicroseconds = 0;
  if (request_.IsOpen() && ::write(request_.Get(), &kMicroseconds, sizeof kMicroseconds) < 0) {
    request_ = Descriptor();
  }
}

}  // namespace ipplayout::platform
