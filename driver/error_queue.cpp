// SPDX-License-Identifier: MIT
#include "driver/error_queue.h"

#include <linux/if_packet.h>
#include <netinet/in.h>

#include <cstring>

namespace ipplayout {
namespace {

bool IsExtendedError(const cmsghdr& control) {
  return (control.cmsg_level == SOL_PACKET && control.cmsg_type == PACKET_TX_TIMESTAMP) ||
         (control.cmsg_level == SOL_IP && control.cmsg_type == IP_RECVERR) ||
         (control.cmsg_level == SOL_IPV6 && control.cmsg_type == IPV6_RECVERR);
}

template <typename T>
T ContentOf(const cmsghdr& control) {
  T content{};
  std::memcpy(&content, CMSG_DATA(&control), sizeof content);
  return content;
}

}  // namespace

QueuedError ReadQueuedError(msghdr& message) {
  QueuedError result;
  for (cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
       control = CMSG_NXTHDR(&message, control)) {
    if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SCM_TIMESTAMPING) {
      const timespec software = ContentOf<scm_timestamping>(*control).ts[0];
      const std::chrono::nanoseconds time =
          std::chrono::seconds(software.tv_sec) + std::chrono::nanoseconds(software.tv_nsec);
      if (time != std::chrono::nanoseconds::zero()) {
        result.software_stamp = time;
      }
    } else if (IsExtendedError(*control)) {
      result.error = ContentOf<sock_extended_err>(*control);
    }
  }
  return result;
}

}  // namespace ipplayout
