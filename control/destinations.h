// SPDX-License-Identifier: MIT
// Where playouts send to, and the transmitters that those with the same destination share.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "control/failure.h"
#include "driver/frame_sink.h"
#include "ipplayout/playouts.h"
#include "platform/mutex.h"
#include "transmit/schedule_transmitter.h"

namespace ipplayout {

// Makes the sinks; tests put their own in its place.
class SinkMaker {
 public:
  virtual ~SinkMaker() = default;
  // Null, with the reason in `failure`, when it cannot be opened. UDP payload begins at
  // `udp_payload_offset` of a frame.
  virtual std::unique_ptr<FrameSink> Open(const IpPlayoutSettings& settings,
                                          std::uint32_t udp_payload_offset, Failure& failure) = 0;
};

// On this platform's drivers.
SinkMaker& PlatformSinks();

// One transmitter and, but for sockets, the sink that all of its playouts send to.
struct Destination {
  Destination(std::unique_ptr<platform::DeadlineWaiter> waiter, bool is_virtual)
      : transmitter(std::move(waiter), is_virtual) {}

  std::unique_ptr<FrameSink> sink;
  ScheduleTransmitter transmitter;  // ends before the sink does
};

// What one playout has of it.
struct Route {
  std::string key;
  std::shared_ptr<Destination> destination;
  std::unique_ptr<FrameSink> own_sink;  // of a socket

  FrameSink& Sink() const { return own_sink != nullptr ? *own_sink : *destination->sink; }
};

class Destinations {
 public:
  explicit Destinations(SinkMaker& sinks) : sinks_(sinks) {}

  // Opens the destination, or joins those that have it open.
  Failure Enter(const IpPlayoutSettings& settings, std::uint32_t udp_payload_offset, Route& route);
  // The last one out closes it, and whoever enters it meanwhile waits: a pipe may take seconds. A
  // file that could not be written whole is the failure.
  Failure Leave(Route& route);

 private:
  static Failure Close(Destination& destination, const std::string& key);
  Failure OpenDestination(const IpPlayoutSettings& settings, std::uint32_t udp_payload_offset,
                          std::shared_ptr<Destination>& destination);

  SinkMaker& sinks_;
  platform::Mutex mutex_;
  platform::ConditionVariable closed_;
  // Null: being closed.
  std::map<std::string, std::shared_ptr<Destination>> open_ IPPLAYOUT_GUARDED_BY(mutex_);
};

}  // namespace ipplayout
