// SPDX-License-Identifier: MIT
// Where the frames of a schedule go: the contract of its destinations.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/deadline_waiter.h"

namespace ipplayout {

struct OutgoingFrame {
  std::span<const std::uint8_t> bytes;  // Ethernet header to end of payload, without FCS
  std::chrono::nanoseconds due{0};      // on the clock of the schedule
  std::uint32_t tag = 0;  // not 0: a departure stamp is wanted, reported with this tag
};

// When a frame left, as the kernel or the adapter saw it.
struct Departure {
  std::uint32_t tag = 0;
  std::chrono::nanoseconds time{0};  // on CLOCK_MONOTONIC
  bool hardware = false;             // the adapter's own stamp
};

// Send belongs to one thread, reading departures to one that may be another.
class FrameSink {
 public:
  static constexpr std::size_t kMostFrames = 64;

  struct Result {
    std::size_t sent = 0;   // from the first on
    int error = 0;          // system error number of the frame behind them; 0 when all were sent
    bool of_frame = false;  // the error is that frame's own, such as its length: others may go on
    bool is_full = false;   // the error is a full queue, which was not waited for: try again soon
  };

  virtual ~FrameSink() = default;

  // Sends 1 to kMostFrames frames in order and back to back. Blocks at most until `waiter` gives up
  // or the sink's patience is used up.
  virtual Result Send(std::span<const OutgoingFrame> frames,
                      const platform::DeadlineWaiter& waiter) = 0;

  // "packet socket", "AF_XDP", "capture file" or "UDP socket".
  virtual const char* Name() const = 0;

  // How often a full queue was waited for. Any thread.
  virtual std::uint64_t Retries() const = 0;

  // Takes departures that have become known and returns how many. Never blocks.
  virtual std::size_t ReadDepartures(std::span<Departure> /*out*/) { return 0; }
  // To be polled for POLLERR; -1 when there never is a departure.
  virtual int DepartureDescriptor() const { return -1; }

  // The schedule's clock is virtual: nothing waits.
  virtual bool IsVirtual() const { return false; }

  // Once, after the last Send. 0 when everything is written, else a system error number.
  virtual int Finish() { return 0; }
};

}  // namespace ipplayout
