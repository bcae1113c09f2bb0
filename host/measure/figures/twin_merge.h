// SPDX-License-Identifier: MIT
// Makes one stream of the datagrams of two paths: each number once, in order, as far as either path
// has it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "host/measure/figures/fec_datagram.h"
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
  // FEC whose first number is `base`, of either path. It is of use once what it protects has come.
  void AddFec(std::uint64_t base, const FecDatagram& fec, std::int64_t time_ns);
  // Numbers below `number` will not come any more.
  void SkipTo(std::uint64_t number);
  // The first number that was delivered.
  const std::optional<std::uint64_t>& First() const { return first_; }

 private:
  struct Kept {
    std::int64_t time_ns = 0;
    std::uint32_t frame_bytes = 0;
    DecodedFrame frame;
    RtpHeader rtp;
    std::vector<std::uint8_t> payload;
  };
  // By the last number that it protects, the first one, and their distance.
  using FecKey = std::tuple<std::uint64_t, std::uint64_t, std::uint32_t>;
  struct KeptFec {
    std::int64_t time_ns = 0;
    FecDatagram fec;
    std::vector<std::uint8_t> parity;
  };

  static constexpr std::size_t kMostFec = 8192;

  void Deliver(std::uint64_t number, const Arrival& arrival);
  void DeliverKept(std::uint64_t below);
  void DeliverFec(std::uint64_t below);

  Stream& combined_;
  std::map<std::uint64_t, Kept> kept_;
  std::map<FecKey, KeptFec> fec_;
  std::set<FecKey> known_fec_;  // the other path may have it, too
  std::uint64_t next_ = 0;
  std::optional<std::uint64_t> first_;
  std::int64_t last_ns_ = 0;
};

}  // namespace ipplay::measure
