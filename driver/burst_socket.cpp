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

BurstSocket::BurstSocket(int descriptor, nanoseconds patience, DepartureStamps* stamps)
    : descriptor_(descriptor), patience_(patience), stamps_(stamps) {
  for (std::size_t i = 0; i < messages_.size(); ++i) {
    messages_[i].msg_hdr.msg_iov = &bytes_[i];
    messages_[i].msg_hdr.msg_iovlen = 1;
  }
}

std::size_t BurstSocket::SendBurst(std::span<const FrameBytes> frames,
                                   const platform::DeadlineWaiter& waiter) {
  return Send(frames, {}, waiter).sent;
}

BurstSocket::Outcome BurstSocket::Send(std::span<const FrameBytes> frames,
                                       std::span<const std::uint32_t> tags,
                                       const platform::DeadlineWaiter& waiter) {
  const std::size_t count = std::min(frames.size(), kMostFrames);
  for (std::size_t i = 0; i < count; ++i) {
    // The kernel only reads from it; iovec has no const form.
    bytes_[i].iov_base = const_cast<std::uint8_t*>(frames[i].data());
    bytes_[i].iov_len = frames[i].size();
  }
  std::size_t sent = 0;
  int calls = 0;
  error_ = 0;
  Patience patience(patience_, waiter, &waits_);
  if (patience_is_used_up_) {
    patience.UseUp();
  }
  while (sent < count && error_ == 0) {
    if (waiter.ShouldGiveUp()) {
      error_ = ECANCELED;
      break;
    }
    // What keeps a frame from being sent is reported by the call that begins with it.
    ++calls;
    const int result = SendOnce(sent, count, tags);
    if (result > 0) {
      sent += static_cast<std::size_t>(result);
      patience.Progress();
      patience_is_used_up_ = false;
    } else if (const int error = errno; !WaitForRoom(error, patience)) {
      const bool full = error == EAGAIN || error == ENOBUFS;
      error_ = full && waiter.ShouldGiveUp() ? ECANCELED : error;
      patience_is_used_up_ = full && error_ != ECANCELED;
    }
  }
  return {sent, error_, calls};
}

int BurstSocket::SendOnce(std::size_t first, std::size_t count,
                          std::span<const std::uint32_t> tags) {
  const std::span<mmsghdr> messages(&messages_[first], count - first);
  const bool with_stamps = stamps_ != nullptr && !tags.empty();
  if (with_stamps) {
    stamps_->Request(messages, tags.subspan(first, messages.size()));
  }
  const int result =
      ::sendmmsg(descriptor_, messages.data(), static_cast<unsigned>(messages.size()),
                 MSG_DONTWAIT | MSG_NOSIGNAL);
  if (with_stamps) {
    const int error = errno;
    stamps_->Note(messages, static_cast<std::size_t>(std::max(result, 0)));
    errno = error;
  }
  return result;
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
