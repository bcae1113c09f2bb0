// SPDX-License-Identifier: MIT
#include "control/destinations.h"

#include <cstring>
#include <utility>

#include "platform/virtual_waiter.h"

namespace ipplayout {
namespace {

std::string KeyOf(const IpPlayoutSettings& settings) {
  // All sockets share a transmitter: which way they leave is the kernel's.
  return settings.To == IPPLAYOUT_TO_SOCKET ? "socket"
                                            : std::to_string(settings.To) + settings.Destination;
}

}  // namespace

Failure Destinations::Enter(const IpPlayoutSettings& settings, std::uint32_t udp_payload_offset,
                            Route& route) {
  const platform::MutexLock lock(mutex_);
  Failure failure;
  if (settings.To == IPPLAYOUT_TO_SOCKET) {
    route.own_sink = sinks_.Open(settings, udp_payload_offset, failure);
    if (route.own_sink == nullptr) {
      return failure;
    }
  }
  route.key = KeyOf(settings);
  std::shared_ptr<Destination>& destination = open_[route.key];
  if (destination == nullptr) {
    failure = OpenDestination(settings, udp_payload_offset, destination);
    if (failure) {
      open_.erase(route.key);
      route = {};
      return failure;
    }
  }
  route.destination = destination;
  return {};
}

Failure Destinations::OpenDestination(const IpPlayoutSettings& settings,
                                      std::uint32_t udp_payload_offset,
                                      std::shared_ptr<Destination>& destination) {
  std::unique_ptr<FrameSink> sink;
  if (settings.To != IPPLAYOUT_TO_SOCKET) {
    Failure failure;
    sink = sinks_.Open(settings, udp_payload_offset, failure);
    if (sink == nullptr) {
      return failure;
    }
  }
  const bool is_virtual = sink != nullptr && sink->IsVirtual();
  std::unique_ptr<platform::DeadlineWaiter> waiter =
      is_virtual ? std::make_unique<platform::VirtualWaiter>()
                 : std::make_unique<platform::DeadlineWaiter>();
  auto opened = std::make_shared<Destination>(std::move(waiter), is_virtual);
  opened->sink = std::move(sink);
  if (!opened->transmitter.Start()) {
    return {IPPLAYOUT_NO_RESOURCES,
            "a thread cannot be started; raise the limit of processes (ulimit -u) or of memory"};
  }
  destination = std::move(opened);
  return {};
}

Failure Destinations::Leave(Route& route) {
  const platform::MutexLock lock(mutex_);
  Failure failure;
  if (route.destination != nullptr && route.destination.use_count() == 2) {
    Destination& last = *route.destination;
    last.transmitter.Stop();
    last.transmitter.Join();
    if (const int error = last.sink == nullptr ? 0 : last.sink->Finish(); error != 0) {
      failure = {IPPLAYOUT_BAD_DESTINATION,
                 route.key.substr(1) + " could not be written whole: " + std::strerror(error)};
    }
    open_.erase(route.key);
  }
  route = {};
  return failure;
}

}  // namespace ipplayout
