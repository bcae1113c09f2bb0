// SPDX-License-Identifier: MIT
#include "driver/adapter_handle.h"

#include <utility>

#include "driver/packet_socket.h"
#include "driver/timed_batch.h"
#include "platform/interface.h"

namespace ipplayout {
AdapterHandle::AdapterHandle(platform::Descriptor socket, std::string interface,
                             unsigned interface_index, const OpenOptions& options)
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
  platform::Descriptor socket = OpenPacketSocket(index);
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
