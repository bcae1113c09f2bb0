// SPDX-License-Identifier: MIT
#include "driver/burst_socket.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "platform/clock.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

void WaitUntilWritable(int descriptor, nanoseconds limit) {
  const timespec time = platform::ToTimespec(limit);
  pollfd target{descriptor, POLLOUT, 0};
  ::ppoll(&target, 1, &time, nullptr);
}

}  // namespace

BurstSocket::BurstSocket(int descriptor, nanoseconds patience)
    : descriptor_(descriptor), patience_(patience) {
  for (std::size_t i = 0; i < messages_.size(); ++i) {
    messages_[i].msg_hdr.msg_iov = &bytes_[i];
    messages_[i].msg_hdr.msg_iovlen = 1;
  }
}

std::size_t BurstSocket::SendBurst(std::span<const FrameBytes> frames,
                                   const platform::DeadlineWaiter& waiter) {
  const std::size_t count = std::min(frames.size(), kMostFrames);
  for (std::size_t i = 0; i < count; ++i) {
    // The kernel only reads from it; iovec has no const form.
    bytes_[i].iov_base = const_cast<std::uint8_t*>(frames[i].data());
    bytes_[i].iov_len = frames[i].size();
  }
  std::size_t sent = 0;
  Patience patience(patience_, waiter);
  while (sent < count && !waiter.ShouldGiveUp()) {
    // What keeps a frame from being sent is reported by the call that begins with it.
    const int result = ::sendmmsg(descriptor_, &messages_[sent],
                                  static_cast<unsigned>(count - sent), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (result > 0) {
      sent += static_cast<std::size_t>(result);
      patience.Progress();
    } else if (!WaitForRoom(errno, patience)) {
      break;
    }
  }
  return sent;
}

bool BurstSocket::WaitForRoom(int error, Patience& patience) const {
  if (error == EINTR) {
    return true;
  }
  if (error == ENOBUFS) {
    // Nothing reports that a device's own queue has room again.
    return patience.Nap();
  }
  if (error != EAGAIN) {
    return false;
  }
  // In pieces, between which a waiter that has come to give up is noticed.
  constexpr nanoseconds kLongestPiece = std::chrono::milliseconds(50);
  const nanoseconds left = patience.Left();
  if (left > nanoseconds::zero()) {
    WaitUntilWritable(descriptor_, std::min(left, kLongestPiece));
  }
  return left > nanoseconds::zero();
}

}  // namespace ipplayout
