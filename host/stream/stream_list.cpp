// SPDX-License-Identifier: MIT
#include "host/stream/stream_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace ipplay {
namespace {

std::optional<Failure> Check(const std::vector<ListedStream>& list, bool without_stamps) {
  const ListedStream& first = list.front();
  for (const ListedStream& each : list) {
    if (!each.facts.bytes) {
      return UsageFailure(fmt::format(
          "INPUT: {} can be read only once, and inputs in a row are files; give it alone",
          each.name));
    }
    if (!each.facts.rate) {
      return UsageFailure(fmt::format(
          "INPUT: {} has no PCRs, by which inputs in a row are joined; give it alone", each.name));
    }
    if (each.facts.format != first.facts.format) {
      return UsageFailure(fmt::format(
          "INPUT: {} has packets of {} bytes and {} of {}; give inputs of one kind", first.name,
          first.facts.format.packet_bytes, each.name, each.facts.format.packet_bytes));
    }
  }
  if (first.facts.format.packet_bytes == 192 && !without_stamps) {
    return UsageFailure(
        "INPUT: the time stamps of 192-byte packets cannot be joined; give --as-188");
  }
  return std::nullopt;
}

}  // namespace

Result<StreamFacts> FactsOfList(std::vector<ListedStream> list, bool without_stamps) {
  if (auto failure = Check(list, without_stamps)) {
    return *std::move(failure);
  }
  StreamFacts facts;
  facts.format = list.front().facts.format;
  facts.filter = list.front().facts.filter;
  facts.rate = list.front().facts.rate;
  facts.bytes = 0;
  double seconds = 0;
  double packets = 0;
  double nulls = 0;
  for (const auto& [name, each] : list) {
    const auto count = static_cast<double>(*each.Packets());
    *facts.bytes += *each.bytes;
    packets += count;
    nulls += count * each.null_share;
    seconds += count / each.rate->packets_per_second;
    facts.rate->lowest = std::min(facts.rate->lowest, each.rate->lowest);
    facts.rate->highest = std::max(facts.rate->highest, each.rate->highest);
  }
  facts.rate->packets_per_second = packets / seconds;
  facts.rate->discontinuities = 0;
  facts.null_share = nulls / packets;
  facts.list = std::move(list);
  return facts;
}

}  // namespace ipplay
