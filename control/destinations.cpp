// SPDX-License-Identifier: MIT
#include "control/destinations.h"

#include <cstring>
#include <exception>
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
  auto found = open_.find(route.key);
  while (found != open_.end() && found->second == nullptr) {
    closed_.Wait(mutex_);
    found = open_.find(route.key);
  }
  if (found == open_.end()) {
    std::shared_ptr<Destination> destination;
    failure = OpenDestination(settings, udp_payload_offset, destination);
    if (failure) {
      route = {};
      return failure;
    }
    found = open_.emplace(route.key, std::move(destination)).first;
  }
  route.destination = found->second;
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
  {
    const platform::MutexLock lock(mutex_);
    if (route.destination == nullptr || route.destination.use_count() > 2) {
      route = {};
      return {};
    }
    open_[route.key].reset();
  }
  const Route last = std::exchange(route, {});
  const auto forget = [&] {
    const platform::MutexLock lock(mutex_);
    open_.erase(last.key);
    closed_.NotifyAll();
  };
  try {
    Failure failure = Close(*last.destination, last.key);
    forget();
    return failure;
  } catch (const std::exception&) {
    forget();  // no memory for the sentence
    throw;
  }
}

Failure Destinations::Close(Destination& destination, const std::string& key) {
  destination.transmitter.Stop();
  destination.transmitter.Join();
  const int error = destination.sink == nullptr ? 0 : destination.sink->Finish();
  destination.sink.reset();  // removes what is left of a file before its name is free again
  return error == 0
             ? Failure()
             : Failure(IPPLAYOUT_BAD_DESTINATION,
                       key.substr(1) + " could not be written whole: " + std::strerror(error));
}

}  // namespace ipplayout
