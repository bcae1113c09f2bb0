// SPDX-License-Identifier: MIT
#include "driver/adapter_sink.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "driver/packet_socket.h"
#include "platform/interface.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds kPatience = std::chrono::seconds(1);

bool IsOfFrame(int error) {
  return error == EMSGSIZE || error == EINVAL;
}

}  // namespace

Opened<AdapterSink> AdapterSink::Open(const AdapterSinkSettings& settings) {
  const auto failed = NotOpened<AdapterSink>;
  int error = 0;
  const auto properties = platform::QueryInterface(settings.interface, error);
  if (!properties) {
    return failed("find the adapter", error);
  }
  if (!properties->ethernet_framed) {
    return failed("send Ethernet frames on the adapter", EPROTONOSUPPORT);
  }
  const unsigned index = platform::InterfaceIndex(settings.interface);
  platform::Descriptor socket = OpenPacketSocket(index);
  if (!socket.IsOpen()) {
    return failed("open a packet socket", errno);
  }
  auto stamps = settings.stamps ? DepartureStamps::Enable(socket.Get(), error) : nullptr;
  const bool try_xdp = settings.prefer_xdp && stamps == nullptr;
  std::unique_ptr<AdapterSink> sink(
      new (std::nothrow) AdapterSink(std::move(socket), std::move(stamps), !try_xdp));
  if (sink == nullptr) {
    return failed("get memory", ENOMEM);
  }
  if (try_xdp) {
    sink->fast_sender_ = XdpSender::Open(index, sink->sender_, sink->socket_.Get(), kPatience / 2);
  }
  return {std::move(sink)};
}

// What AF_XDP has waited for in vain, the packet socket waits for again.
AdapterSink::AdapterSink(platform::Descriptor socket, std::unique_ptr<DepartureStamps> stamps,
                         bool patient_once)
    : socket_(std::move(socket)),
      stamps_(std::move(stamps)),
      sender_(socket_.Get(), patient_once ? kPatience : kPatience / 2, stamps_.get()) {}

FrameSink::Result AdapterSink::Send(std::span<const OutgoingFrame> frames,
                                    const platform::DeadlineWaiter& waiter) {
  std::array<FrameBytes, kMostFrames> bytes;
  std::array<std::uint32_t, kMostFrames> tags;
  const std::size_t count = std::min(frames.size(), kMostFrames);
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = frames[i].bytes;
    tags[i] = frames[i].tag;
  }
  const std::span<const FrameBytes> burst(bytes.data(), count);
  if (fast_sender_ == nullptr) {
    const auto outcome = sender_.Send(burst, {tags.data(), count}, waiter);
    return {outcome.sent, outcome.error, IsOfFrame(outcome.error)};
  }
  sender_.TakeError();
  const std::size_t sent = fast_sender_->SendBurst(burst, waiter);
  int error = sender_.TakeError();
  if (sent < count && error == 0) {
    error = EIO;  // the kernel does not say what became of the rest
  }
  return {sent, error, IsOfFrame(error)};
}

const char* AdapterSink::Name() const {
  return fast_sender_ == nullptr ? "packet socket" : "AF_XDP";
}

std::uint64_t AdapterSink::Retries() const {
  return sender_.Waits() + (fast_sender_ == nullptr ? 0 : fast_sender_->Waits());
}

std::size_t AdapterSink::ReadDepartures(std::span<Departure> out) {
  return stamps_ == nullptr ? 0 : stamps_->Read(out);
}

int AdapterSink::DepartureDescriptor() const {
  return stamps_ == nullptr ? -1 : socket_.Get();
}

static_assert(FrameSink::kMostFrames == BurstSender::kMostFrames);

}  // namespace ipplayout
