// SPDX-License-Identifier: MIT
#include "driver/xdp_sender.h"

#include <net/if.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "driver/patience.h"

namespace ipplayout {
namespace {

constexpr std::size_t kEthernetHeader = 14;
constexpr std::size_t kTag = 4;
constexpr std::uint32_t kSmallChunk = 2048;
constexpr std::uint32_t kLargeChunk = 4096;  // a page

// Bytes in front of the payload, which is what the MTU limits: a tag does not count.
std::size_t HeaderBytes(FrameBytes frame) {
  const bool tagged = frame.size() > kEthernetHeader && frame[12] == 0x81 && frame[13] == 0x00;
  return tagged ? kEthernetHeader + kTag : kEthernetHeader;
}

// No room at present: the adapter's queue, the completion ring or the socket's memory is full.
bool MeansFull(int error) {
  return error == 0 || error == EAGAIN || error == ENOBUFS || error == EINTR;
}

}  // namespace

std::unique_ptr<XdpSender> XdpSender::Open(unsigned interface_index, BurstSender& rest,
                                           int packet_socket, std::chrono::nanoseconds patience) {
  std::unique_ptr<XdpSender> sender(new XdpSender(interface_index, rest, packet_socket, patience));
  const std::size_t longest = sender->AdapterMtu() + kEthernetHeader + kTag;
  sender->rings_ =
      XdpRings::Open(interface_index, longest <= kSmallChunk ? kSmallChunk : kLargeChunk);
  return sender->rings_ == nullptr ? nullptr : std::move(sender);
}

XdpSender::XdpSender(unsigned interface_index, BurstSender& rest, int packet_socket,
                     std::chrono::nanoseconds patience)
    : interface_index_(interface_index),
      rest_(rest),
      packet_socket_(packet_socket),
      patience_(patience) {}

std::size_t XdpSender::SendBurst(std::span<const FrameBytes> frames,
                                 const platform::DeadlineWaiter& waiter) {
  std::size_t sent = 0;
  if (usable_ && CanCarry(frames)) {
    while (sent < frames.size()) {
      const auto part = frames.subspan(sent, std::min(kFramesPerCall, frames.size() - sent));
      const Outcome outcome = SendPart(part, waiter);
      sent += outcome.sent;
      if (!outcome.certain) {
        return sent;
      }
      if (outcome.sent < part.size()) {
        break;
      }
    }
  }
  return sent == frames.size() ? sent : sent + rest_.SendBurst(frames.subspan(sent), waiter);
}

// The kernel checks no length here and may lose a frame that is too long without a word.
bool XdpSender::CanCarry(std::span<const FrameBytes> frames) const {
  const std::size_t mtu = AdapterMtu();
  return std::all_of(frames.begin(), frames.end(), [&](FrameBytes frame) {
    return frame.size() > kEthernetHeader && frame.size() <= mtu + HeaderBytes(frame) &&
           frame.size() <= rings_->ChunkBytes();
  });
}

// Asked each time, since it can change while a playout runs, and so can the adapter's name, which
// another one may then take. 0 when the adapter is gone.
std::size_t XdpSender::AdapterMtu() const {
  ifreq request{};
  request.ifr_ifindex = static_cast<int>(interface_index_);
  const bool known = ::ioctl(packet_socket_, SIOCGIFNAME, &request) == 0 &&
                     ::ioctl(packet_socket_, SIOCGIFMTU, &request) == 0 && request.ifr_mtu > 0;
  return known ? static_cast<std::size_t>(request.ifr_mtu) : 0;
}

XdpSender::Outcome XdpSender::SendPart(std::span<const FrameBytes> frames,
                                       const platform::DeadlineWaiter& waiter) {
  Patience patience(patience_, waiter, &waits_);
  while (rings_->FreeChunks() < frames.size()) {
    if (!patience.Nap()) {
      return {};
    }
  }
  for (const FrameBytes frame : frames) {
    rings_->Append(frame);
  }
  rings_->Publish();
  patience.Progress();
  for (std::uint32_t taken = rings_->Taken();;) {
    const int error = rings_->Kick();
    if (error == 0 && rings_->AllTaken()) {
      return {frames.size()};
    }
    if (std::exchange(taken, rings_->Taken()) != taken) {
      patience.Progress();
    }
    if (!MeansFull(error) || !patience.Nap()) {
      // The frame that the adapter did not take is then behind the kernel, as if it were sent.
      return TakeBack(frames.size(), error == EBUSY);
    }
  }
}

XdpSender::Outcome XdpSender::TakeBack(std::size_t count, bool last_was_dropped) {
  const std::uint32_t known =
      rings_->Taken() - (rings_->Published() - static_cast<std::uint32_t>(count));
  const std::optional<std::size_t> taken_back = rings_->TakeBack(count);
  usable_ = taken_back.has_value();
  std::size_t taken = usable_ ? count - *taken_back : known;
  if (last_was_dropped && taken > 0) {
    --taken;
  }
  return {taken, usable_};
}

}  // namespace ipplayout
