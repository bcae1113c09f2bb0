// SPDX-License-Identifier: MIT
// Makes one stream of the datagrams of two paths: each number once, in order, as far as either path
// has it.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "host/measure/figures/stream.h"

namespace ipplay::measure {

class TwinMerge {
 public:
  // Datagrams that wait for one before them, on the path that is ahead.
  static constexpr std::size_t kMostWaiting = 65536;

  explicit TwinMerge(Stream& combined) : combined_(combined) {}

  // From this number on; what waits is delivered.
  void Begin(std::uint64_t number);
  // The first datagram of a number, with the time that it is to have.
  void Add(std::uint64_t number, const Arrival& arrival);
  // Numbers below `number` will not come any more.
  void SkipTo(std::uint64_t number);

 private:
  struct Kept {
    std::int64_t time_ns = 0;
    std::uint32_t frame_bytes = 0;
    DecodedFrame frame;
    RtpHeader rtp;
    std::vector<std::uint8_t> payload;
  };

  void Deliver(const Arrival& arrival);
  void DeliverKept(std::uint64_t below);

  Stream& combined_;
  std::map<std::uint64_t, Kept> kept_;
  std::uint64_t next_ = 0;
  std::int64_t last_ns_ = 0;
};

}  // namespace ipplay::measure
