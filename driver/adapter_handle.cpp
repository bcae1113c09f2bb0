// SPDX-License-Identifier: MIT
#include "driver/adapter_handle.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <utility>

#include "driver/timed_batch.h"
#include "platform/interface.h"

namespace ipplayout {
namespace {

using platform::Descriptor;

// Protocol 0 in socket and address: the kernel delivers no frame to it. Frames go straight to the
// device, past its queueing discipline and past other capturing sockets; where the kernel has no
// such option they take the ordinary way.
Descriptor OpenPacketSocket(unsigned interface_index) {
  Descriptor socket = platform::AboveStandard(
      Descriptor(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)));
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(interface_index);
  if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return Descriptor();
  }
  const int on = 1;
  ::setsockopt(socket.Get(), SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
  return socket;
}

}  // namespace

AdapterHandle::AdapterHandle(Descriptor socket, std::string interface, unsigned interface_index,
                             const OpenOptions& options)
    : socket_(std::move(socket)),
      interface_(std::move(interface)),
      interface_index_(interface_index),
      options_(options),
      sender_(socket_.Get()) {}

std::unique_ptr<AdapterHandle> AdapterHandle::Open(const std::string& interface,
                                                   const OpenOptions& options) {
  int error = 0;
  const auto properties = platform::QueryInterface(interface, error);
  const unsigned index = platform::InterfaceIndex(interface);
  if (!properties || !properties->ethernet_framed || index == 0) {
    return nullptr;
  }
  Descriptor socket = OpenPacketSocket(index);
  if (!socket.IsOpen()) {
    return nullptr;
  }
  std::unique_ptr<AdapterHandle> handle(
      new AdapterHandle(std::move(socket), interface, index, options));
  return options.capture_later || handle->Capture() != nullptr ? std::move(handle) : nullptr;
}

// The empty filter is what a capture begins with.
FilterResult AdapterHandle::SetFilter(const char* text, std::uint32_t netmask) {
  if (*text == '\0' && capture_ == nullptr) {
    return {};
  }
  PcapCapture* const capture = Capture();
  return capture == nullptr ? FilterResult{FilterResult::Stage::kSet, -1}
                            : capture->SetFilter(text, netmask);
}

void AdapterHandle::ExpectBatches() {
  fast_sender_ = XdpSender::Open(interface_index_, sender_, socket_.Get());
}

bool AdapterHandle::SendFrame(std::span<const std::uint8_t> frame) {
  return sender_.SendBurst({&frame, 1}, endless_) == 1;
}

std::size_t AdapterHandle::TransmitQueue(const SendQueue& queue, bool synchronised,
                                         platform::DeadlineWaiter& waiter) {
  if (fast_sender_ != nullptr) {
    return TransmitTimed(queue, synchronised, waiter, *fast_sender_);
  }
  return TransmitTimed(queue, synchronised, waiter, sender_);
}

std::optional<CapturedFrame> AdapterHandle::NextFrame() {
  PcapCapture* const capture = Capture();
  return capture == nullptr ? std::nullopt : capture->NextFrame();
}

PcapCapture* AdapterHandle::Capture() {
  if (capture_ == nullptr) {
    capture_ = PcapCapture::Open(interface_, options_);
  }
  return capture_.get();
}

}  // namespace ipplayout
