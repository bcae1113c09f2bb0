// SPDX-License-Identifier: MIT
// Messages of a socket's queue of errors (MSG_ERRQUEUE), which holds departure stamps as well.
#pragma once

#include <sys/socket.h>
#include <time.h>
// Needs the times of the C library's header.
#include <linux/errqueue.h>

#include <chrono>
#include <optional>

namespace ipplayout {

struct QueuedError {
  sock_extended_err error{};
  // Of a departure stamp of the kernel's, on the wall clock.
  std::optional<std::chrono::nanoseconds> software_stamp;

  bool IsStamp() const { return error.ee_origin == SO_EE_ORIGIN_TIMESTAMPING; }
  bool IsIcmp() const {
    return error.ee_origin == SO_EE_ORIGIN_ICMP || error.ee_origin == SO_EE_ORIGIN_ICMP6;
  }
};

// Room for the control data of one message: a stamp, an error and where the error came from.
inline constexpr std::size_t kErrorControlBytes = 192;

// What a received message of the queue says.
QueuedError ReadQueuedError(msghdr& message);

}  // namespace ipplayout
