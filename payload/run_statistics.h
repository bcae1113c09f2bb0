// SPDX-License-Identifier: MIT
// The counters of one run, which a host may read and clear at any time.
#pragma once

#include <atomic>
#include <cstdint>

#include "ipplayout/ipplayout.h"
#include "platform/snapshot.h"

namespace ipplayout {

class CErrorInsertionManager;
class PDU;

// What a run's datagrams look like, in bytes.
struct DatagramShape {
  std::uint32_t header_room = 0;     // in front of the payload
  std::uint32_t datagram_size = 0;   // headers included
  std::uint32_t packet_size = 0;     // of a transport stream packet in the input; 0 for none
  std::uint32_t ts_packet_size = 0;  // that it counts for
};

// Counted by one thread and published after each datagram. A reader takes a record for zeros until
// a datagram has been counted after the last time that they were cleared.
class RunStatistics {
 public:
  // ---- The thread that builds datagrams ----

  void Begin(const DatagramShape& shape);
  // A datagram that has been sent, lost or held back on purpose.
  void Count(const PDU& frame, CErrorInsertionManager& errors);

  // ---- Any thread ----

  PlayoutStatistics Read() const;
  void Clear() { clearings_.fetch_add(1); }

 private:
  struct Counted {
    PlayoutStatistics statistics;
    std::uint64_t clearings;  // noticed before this datagram was counted
  };

  // The builder's own.
  DatagramShape shape_;
  double payload_bytes_ = 0;
  Counted counted_{};

  platform::Snapshot<Counted> published_;
  std::atomic<std::uint64_t> clearings_{0};
};

}  // namespace ipplayout
