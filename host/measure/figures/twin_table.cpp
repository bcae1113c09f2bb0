// SPDX-License-Identifier: MIT
#include "host/measure/figures/twin_table.h"

#include <algorithm>
#include <cstdlib>

namespace ipplay::measure {
namespace {

// Datagrams of a third stream that are the same as those of a pair: copies, and no twins.
constexpr std::uint32_t kEnoughSame = 3;
constexpr std::uint32_t kMostCompared = 1'000;

}  // namespace

void TwinTable::Add(const Stream& stream, const Arrival& arrival, const Streams& streams) {
  if (links_.size() <= stream.Place()) {
    links_.resize(streams.size());
  }
  if (links_[stream.Place()].group == nullptr) {
    if (!stream.MayBeFec() && !stream.ProtectedStream()) {
      Join(stream, arrival.time_ns, streams);
    }
    return;
  }
  Link& link = links_[stream.Place()];
  if (link.group->places.size() > kTwinPaths && link.compared < kMostCompared) {
    CompareWithOthers(link, arrival);
  }
  if (link.pair == nullptr) {
    return;
  }
  link.pair->Add(link.path, arrival, stream.LastSequence());
  if (link.pair->IsRejected()) {
    PartWith(*link.pair, arrival.time_ns, streams);
  }
}

void TwinTable::AddFec(const Stream& stream, const Arrival& arrival) {
  const std::size_t media = *stream.ProtectedStream();
  if (media >= links_.size() || links_[media].pair == nullptr || !arrival.frame->IsComplete() ||
      stream.LastSequence().event == SequenceEvent::kDuplicate) {
    return;
  }
  if (const auto fec =
          ParseFecDatagram(arrival.frame->payload.subspan(arrival.rtp->header_length))) {
    links_[media].pair->AddFec(*fec, arrival.time_ns);
  }
}

void TwinTable::Join(const Stream& stream, std::int64_t now_ns, const Streams& streams) {
  Group& group = by_ssrc_[*stream.Id().ssrc];
  links_[stream.Place()].group = &group;
  if (group.places.size() < kMostOfAnSsrc) {
    group.places.push_back(stream.Place());
    PairUp(stream, now_ns, streams);
  }
}

void TwinTable::PairUp(const Stream& stream, std::int64_t now_ns, const Streams& streams) {
  Link& link = links_[stream.Place()];
  if (link.group->is_copied || pairs_.size() >= most_pairs_) {
    return;
  }
  for (const std::uint32_t place : link.group->places) {
    const Stream& other = *streams[place];
    if (MayBeTwins(stream, other, now_ns)) {
      const bool is_first = stream.Place() < place;
      pairs_.push_back(std::make_unique<TwinPair>(
          is_first ? stream : other, is_first ? other : stream, settings_, events_, now_ns));
      link.pair = links_[place].pair = pairs_.back().get();
      link.path = is_first ? 0 : 1;
      links_[place].path = 1 - link.path;
      return;
    }
  }
}

bool TwinTable::MayBeTwins(const Stream& stream, const Stream& other, std::int64_t now_ns) const {
  const Link& link = links_[stream.Place()];
  if (&stream == &other || links_[other.Place()].pair != nullptr || other.IsClosed() ||
      std::ranges::find(link.rejected, other.Place()) != link.rejected.end()) {
    return false;
  }
  const auto step = static_cast<std::int16_t>(stream.AsRtp()->sequence.Highest() -
                                              other.AsRtp()->sequence.Highest());
  return static_cast<std::uint64_t>(std::abs(step)) < TwinPair::kFurthest &&
         now_ns - other.Rate().LastNs() <= kLongestSilenceNs;
}

// Others of their SSRC may be the twins of both.
void TwinTable::PartWith(const TwinPair& pair, std::int64_t now_ns, const Streams& streams) {
  const auto [first, second] = pair.Places();
  links_[first].rejected.push_back(second);
  links_[second].rejected.push_back(first);
  Forget(pair);
  for (const std::uint32_t place : links_[first].group->places) {
    if (links_[place].pair == nullptr) {
      PairUp(*streams[place], now_ns, streams);
    }
  }
}

void TwinTable::Forget(const TwinPair& pair) {
  for (const std::uint32_t place : pair.Places()) {
    links_[place].pair = nullptr;
  }
  std::erase_if(pairs_, [&](const auto& other) { return other.get() == &pair; });
}

void TwinTable::CompareWithOthers(Link& link, const Arrival& arrival) {
  ++link.compared;
  for (const std::uint32_t place : link.group->places) {
    const Link& other = links_[place];
    if (other.pair != nullptr && other.pair != link.pair && other.path == 0 &&
        other.pair->Compare(arrival) == TwinPair::Likeness::kSame && ++link.same == kEnoughSame) {
      Dissolve(*link.group);
      return;
    }
  }
}

void TwinTable::Dissolve(Group& group) {
  group.is_copied = true;
  for (const std::uint32_t place : group.places) {
    if (const TwinPair* pair = links_[place].pair; pair != nullptr) {
      Forget(*pair);
    }
  }
}

void TwinTable::Close(const Stream& stream) {
  if (stream.Place() < links_.size() && links_[stream.Place()].pair != nullptr) {
    links_[stream.Place()].pair->Close();
  }
}

void TwinTable::Finish(std::int64_t end_ns) {
  std::erase_if(pairs_, [](const auto& pair) { return !pair->IsConfirmed(); });
  for (const auto& pair : pairs_) {
    pair->Finish(end_ns);
  }
}

void TwinTable::GiveUpDetail() {
  for (const auto& pair : pairs_) {
    pair->GiveUpDetail();
  }
}

}  // namespace ipplay::measure
