// SPDX-License-Identifier: MIT
// Finds the streams that are the same RTP on two paths: one SSRC, between other addresses or ports,
// with the same datagrams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/measure/figures/settings.h"
#include "host/measure/figures/stream.h"
#include "host/measure/figures/twin_pair.h"

namespace ipplay::measure {

class TwinTable {
 public:
  using Streams = std::vector<std::unique_ptr<Stream>>;

  // Events go to `events`, which outlives this.
  TwinTable(const MeasurementSettings& settings, EventSink* events)
      : settings_(settings),
        events_(events),
        most_pairs_(settings.memory_bytes / (kShareForTwins * kBytesOfAPair)) {}

  // A datagram of a stream with RTP, behind its stream.
  void Add(const Stream& stream, const Arrival& arrival, const Streams& streams);
  // A datagram of a stream that is FEC of another one, behind its stream.
  void AddFec(const Stream& stream, const Arrival& arrival);
  // The stream takes no more frames.
  void Close(const Stream& stream);
  // After the last datagram. Only pairs that are twins remain.
  void Finish(std::int64_t end_ns);
  // Gives back what can be done without.
  void GiveUpDetail();

  const std::vector<std::unique_ptr<TwinPair>>& Pairs() const { return pairs_; }

 private:
  static constexpr std::uint64_t kShareForTwins = 16;
  static constexpr std::uint64_t kBytesOfAPair = 100'000;
  // Streams of one SSRC among which twins are looked for.
  static constexpr std::size_t kMostOfAnSsrc = 64;
  static constexpr std::int64_t kLongestSilenceNs = 1'000'000'000;

  // Streams of one SSRC that are no FEC.
  struct Group {
    std::vector<std::uint32_t> places;
    bool is_copied = false;  // one stream more than two times
  };
  // Of a stream, by its place.
  struct Link {
    Group* group = nullptr;
    TwinPair* pair = nullptr;
    std::size_t path = 0;
    std::vector<std::uint32_t> rejected;  // are no twins of it
    std::uint32_t compared = 0;           // datagrams, with other pairs of the group
    std::uint32_t same = 0;
  };

  void Join(const Stream& stream, std::int64_t now_ns, const Streams& streams);
  // Pairs it with a stream of the same SSRC that has no twin and whose numbers are close.
  void PairUp(const Stream& stream, std::int64_t now_ns, const Streams& streams);
  bool MayBeTwins(const Stream& stream, const Stream& other, std::int64_t now_ns) const;
  void PartWith(const TwinPair& pair, std::int64_t now_ns, const Streams& streams);
  void Forget(const TwinPair& pair);
  void CompareWithOthers(Link& link, const Arrival& arrival);
  void Dissolve(Group& group);

  const MeasurementSettings settings_;
  EventSink* const events_;
  const std::uint64_t most_pairs_;
  std::unordered_map<std::uint64_t, Group, KeyedHash> by_ssrc_;
  std::vector<Link> links_;
  std::vector<std::unique_ptr<TwinPair>> pairs_;
};

}  // namespace ipplay::measure
