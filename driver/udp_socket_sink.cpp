// SPDX-License-Identifier: MIT
#include "driver/udp_socket_sink.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "driver/error_queue.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

// What an ICMP message said is reported by one call and forgotten. What is reported as often as
// this in a row is what keeps the frame itself from leaving.
constexpr int kMostTries = 3;

bool IsOfFrame(int error) {
  return error == EMSGSIZE || error == EINVAL || error == EPERM;
}

bool IsFull(int error) {
  return error == EAGAIN || error == ENOBUFS;
}

bool MayBeOfIcmp(int error) {
  return error != 0 && !IsFull(error) && error != ECANCELED && error != EPERM;
}

}  // namespace

Opened<UdpSocketSink> UdpSocketSink::Open(const UdpSinkSettings& settings) {
  const char* step = "";
  platform::Descriptor socket = OpenUdpSocket(settings.socket, step);
  if (!socket.IsOpen()) {
    return NotOpened<UdpSocketSink>(step, errno);
  }
  int error = 0;
  auto stamps = settings.stamps ? DepartureStamps::Enable(socket.Get(), error) : nullptr;
  std::unique_ptr<UdpSocketSink> sink(
      new (std::nothrow) UdpSocketSink(std::move(socket), std::move(stamps), settings));
  return sink == nullptr ? NotOpened<UdpSocketSink>("get memory", ENOMEM)
                         : Opened<UdpSocketSink>{std::move(sink)};
}

UdpSocketSink::UdpSocketSink(platform::Descriptor socket, std::unique_ptr<DepartureStamps> stamps,
                             const UdpSinkSettings& settings)
    : socket_(std::move(socket)),
      stamps_(std::move(stamps)),
      payload_offset_(settings.payload_offset),
      waits_(settings.patience > nanoseconds::zero()),
      sender_(socket_.Get(), settings.patience, stamps_.get()) {}

FrameSink::Result UdpSocketSink::Send(std::span<const OutgoingFrame> frames,
                                      const platform::DeadlineWaiter& waiter) {
  std::array<FrameBytes, kMostFrames> payloads;
  std::array<std::uint32_t, kMostFrames> tags;
  std::size_t count = 0;
  for (; count < frames.size() && frames[count].bytes.size() >= payload_offset_; ++count) {
    payloads[count] = frames[count].bytes.subspan(payload_offset_);
    tags[count] = frames[count].tag;
  }
  Result result;
  for (int tries = 0; result.sent < count;) {
    const std::size_t left = count - result.sent;
    const auto outcome =
        sender_.Send({&payloads[result.sent], left}, {&tags[result.sent], left}, waiter);
    result.sent += outcome.sent;
    if (outcome.calls > 1 || outcome.error != 0) {
      TakeErrors();
    }
    tries = outcome.sent == 0 ? tries + 1 : 1;
    if (outcome.error != 0 && (!MayBeOfIcmp(outcome.error) || tries == kMostTries)) {
      result.error = outcome.error;
      result.of_frame = IsOfFrame(outcome.error);
      result.is_full = !waits_ && IsFull(outcome.error);
      return result;
    }
  }
  if (count < frames.size()) {
    result.error = EINVAL;
    result.of_frame = true;
  }
  return result;
}

void UdpSocketSink::TakeErrors() {
  if (stamps_ != nullptr) {
    return;
  }
  for (;;) {
    alignas(cmsghdr) std::array<std::uint8_t, kErrorControlBytes> control;
    msghdr message{};
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (::recvmsg(socket_.Get(), &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) {
      return;
    }
    if (ReadQueuedError(message).IsIcmp()) {
      icmp_errors_.fetch_add(1, std::memory_order_relaxed);
    }
  }
}

std::size_t UdpSocketSink::ReadDepartures(std::span<Departure> out) {
  return stamps_ == nullptr ? 0 : stamps_->Read(out);
}

int UdpSocketSink::DepartureDescriptor() const {
  return stamps_ == nullptr ? -1 : socket_.Get();
}

std::uint64_t UdpSocketSink::IcmpErrors() const {
  return stamps_ == nullptr ? icmp_errors_.load(std::memory_order_relaxed) : stamps_->IcmpErrors();
}

}  // namespace ipplayout
