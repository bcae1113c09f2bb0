// SPDX-License-Identifier: MIT
// One playout of the library's that has a handle: any number of them run beside each other.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/base/result.h"
#include "ipplayout/playouts.h"

namespace ipplay {

// Any thread may call any function, as playouts.h says; one at a time writes and marks. What the
// library refuses comes back as a failure with its own sentence.
class ScheduledPlayout {
 public:
  using Time = std::chrono::nanoseconds;  // points in time are on CLOCK_MONOTONIC

  enum class State {
    kPlayed,   // all that was written has left
    kStopped,  // before that
    kGoesOn,
  };

  // The library's defaults, to be filled in.
  static IpPlayoutSettings Defaults();
  static Time Now() { return Time(IpPlayoutNow()); }

  static Result<ScheduledPlayout> Open();

  // For the next start. Forgets what was written and marked before.
  std::optional<Failure> Configure(const IpPlayoutSettings& settings);

  // Has the ledger of the next run, for which LedgerFrames are ordered, written to a pcapng file.
  std::optional<Failure> WriteLedger(const std::string& path);

  // The byte at `offset` of what is written leaves at `time` after the start.
  std::optional<Failure> Mark(std::uint64_t offset, Time time);

  // Without a time it starts as soon as StartBytes are there.
  std::optional<Failure> Start(std::optional<Time> start = std::nullopt);
  // All at the same moment, or none.
  static std::optional<Failure> Start(std::span<ScheduledPlayout* const> playouts,
                                      std::optional<Time> start = std::nullopt);

  // Blocks while the ring is full. False once the playout has ended or is stopped: Wait() has the
  // reason.
  bool Write(std::span<const std::uint8_t> bytes);
  // How much of it there was room for; never blocks. None once the playout has ended.
  std::optional<std::size_t> TryWrite(std::span<const std::uint8_t> bytes);
  // Nothing follows what was written.
  void End();

  // Until the playout has ended, at most `timeout` if there is one. A failure says why it ended.
  Result<State> Wait(std::optional<Time> timeout = std::nullopt);
  // Readable from the end of the playout until its next start. Belongs to the library.
  int EndDescriptor() const;

  std::optional<Failure> Pause(bool on);
  // From Configure on; carried out when it says.
  std::optional<Failure> Order(const IpPlayoutOrder& order);
  // Errors, faults and jitter of `settings` hold from `at` on, and what follows is played at this
  // speed.
  std::optional<Failure> Change(const IpPlayoutSettings& settings, double speed, Time at);
  // Takes the oldest reports of what was done, and says how many.
  std::size_t ReadDone(std::span<IpPlayoutDone> out);
  IpPlayoutFaultCounts Faults() const;
  // Each of the next `datagrams` that no other order has taken: one of IPPLAYOUT_DID_LOSE, DELAY,
  // IP_CHECKSUM, UDP_CHECKSUM.
  std::optional<Failure> Damage(std::uint32_t what, std::uint32_t datagrams);
  // Releases who waits or writes. A capture file that could not be written whole is a failure.
  std::optional<Failure> Stop();

  // Of the current or last run; zeros, and -1 for times, before the first one.
  PlayoutStatistics Statistics() const;
  IpPlayoutTiming Timing() const;
  // Frames that left at most so late, and the sum of their lateness.
  struct Lateness {
    std::uint64_t frames = 0;
    std::int64_t sum_ns = 0;
  };
  Lateness LatenessUpTo(Time bound) const;
  std::uint64_t Seed() const;
  // Takes the oldest records of frames, where LedgerFrames were ordered, and says how many.
  std::size_t ReadLedger(std::span<IpPlayoutRecord> out);

 private:
  struct Close {
    void operator()(IpPlayout* playout) const { IpPlayoutClose(playout); }
  };

  explicit ScheduledPlayout(IpPlayout* playout) : playout_(playout) {}

  std::unique_ptr<IpPlayout, Close> playout_;
};

}  // namespace ipplay
