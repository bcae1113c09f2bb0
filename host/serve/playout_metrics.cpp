// SPDX-License-Identifier: MIT
#include <array>
#include <chrono>
#include <limits>

#include "host/base/address.h"
#include "host/serve/metric_family.h"
#include "host/serve/metrics.h"

namespace ipplay::serve {
namespace {

using prometheus::MetricType;
using namespace std::chrono_literals;

constexpr double kBitsPerByte = 8;
constexpr double kSecond = 1e9;  // in nanoseconds
constexpr std::array<std::string_view, 7> kStates{"ready", "playing", "paused", "waiting",
                                                  "ended", "stopped", "failed"};

std::optional<double> Bytes(const std::optional<double>& bits) {
  return bits ? std::optional(*bits / kBitsPerByte) : std::nullopt;
}

// The last one is for all frames.
constexpr std::array<Channel::Time, 15> kBounds{1us,   5us,   10us,  20us, 50us,
                                                100us, 200us, 500us, 1ms,  2ms,
                                                5ms,   10ms,  100ms, 1s,   Channel::Time::max()};

Labels LabelsOf(const ChannelStatus& status) {
  return {{"playout", status.name}, {"target", status.target}};
}

// One value of each playout.
template <typename Value>
void AddEach(const std::vector<ChannelStatus>& playouts, Families& families, const char* name,
             const char* help, MetricType type, const Value& value) {
  MetricFamily family(name, help, type);
  for (const ChannelStatus& status : playouts) {
    family.Add(LabelsOf(status), value(status));
  }
  families.push_back(family.Take());
}

void AddStates(const std::vector<ChannelStatus>& playouts, Families& families) {
  MetricFamily states("ipplay_playout_state", "1 for the state that the playout is in.",
                      MetricType::Gauge);
  for (const ChannelStatus& status : playouts) {
    states.AddStates(LabelsOf(status), kStates, NameOf(status.state));
  }
  families.push_back(states.Take());
}

void AddRates(const std::vector<ChannelStatus>& playouts, Families& families) {
  AddEach(playouts, families, "ipplay_playout_starts_total", "Starts of the playout.",
          MetricType::Counter, [](const auto& status) { return std::uint64_t{status.starts}; });
  AddEach(playouts, families, "ipplay_playout_set_bytes_per_second",
          "Rate of the transport stream, as ordered or changed.", MetricType::Gauge,
          [](const auto& status) { return Bytes(status.set_rate_bps); });
  AddEach(playouts, families, "ipplay_playout_bytes_per_second",
          "Rate of the transport stream in the last seconds.", MetricType::Gauge,
          [](const auto& status) { return Bytes(status.rate_bps); });
  AddEach(playouts, families, "ipplay_playout_datagrams_total",
          "Datagrams of one copy, those lost on purpose included.", MetricType::Counter,
          [](const auto& status) { return std::uint64_t{status.counters.DatagramsSent}; });
  AddEach(playouts, families, "ipplay_playout_frame_bytes_total",
          "Bytes of the frames of one copy.", MetricType::Counter,
          [](const auto& status) { return std::uint64_t{status.counters.BytesSent}; });
}

void AddFaults(const std::vector<ChannelStatus>& playouts, Families& families) {
  MetricFamily faults("ipplay_playout_faults_total", "Datagrams damaged on purpose.",
                      MetricType::Counter);
  for (const ChannelStatus& status : playouts) {
    const PlayoutStatistics& counters = status.counters;
    const std::pair<const char*, std::uint64_t> kinds[] = {
        {"lost", counters.LostPackets},
        {"delayed", counters.SequenceErrors},
        {"duplicates", status.faults.Duplicated},
        {"corrupted", status.faults.Corrupted},
        {"ipv4_header_bad", counters.IPChecksumErrors},
        {"udp_bad", counters.UDPChecksumErrors}};
    for (const auto& [kind, count] : kinds) {
      faults.Add(With(LabelsOf(status), "kind", kind), count);
    }
  }
  families.push_back(faults.Take());
}

void AddDepartures(const std::vector<ChannelStatus>& playouts, Families& families) {
  MetricFamily frames("ipplay_playout_frames_total",
                      "Frames by what became of them: on_time at most 1 ms behind their place.",
                      MetricType::Counter);
  for (const ChannelStatus& status : playouts) {
    const IpPlayoutTiming& timing = status.timing;
    const std::pair<const char*, std::uint64_t> outcomes[] = {{"on_time", timing.OnTime},
                                                              {"late", timing.Late},
                                                              {"not_sent", timing.NotSent},
                                                              {"discarded", timing.Discarded}};
    for (const auto& [outcome, count] : outcomes) {
      frames.Add(With(LabelsOf(status), "outcome", outcome), count);
    }
  }
  families.push_back(frames.Take());
  AddEach(playouts, families, "ipplay_playout_input_dry_total",
          "How often the input was not there in time.", MetricType::Counter,
          [](const auto& status) { return std::uint64_t{status.timing.DryTimes}; });
  AddEach(playouts, families, "ipplay_playout_input_dry_seconds_total",
          "For how long in all the input was not there in time.", MetricType::Counter,
          [](const auto& status) {
            return std::optional(static_cast<double>(status.timing.DryNs) / kSecond);
          });
}

}  // namespace

void AddPlayoutMetrics(const std::vector<ChannelStatus>& playouts, Families& families) {
  AddStates(playouts, families);
  AddRates(playouts, families);
  AddFaults(playouts, families);
  AddDepartures(playouts, families);
}

void AddLateness(const PlayoutStore::Channels& channels, Families& families) {
  MetricFamily lateness("ipplay_playout_lateness_seconds",
                        "How far behind their places in the schedule frames left.",
                        MetricType::Histogram);
  for (const auto& channel : channels) {
    const auto parts = channel->LatenessUpTo(kBounds);
    std::vector<MetricFamily::Bucket> buckets;
    for (std::size_t i = 0; i < kBounds.size(); ++i) {
      const bool is_last = i + 1 == kBounds.size();
      const double bound = static_cast<double>(kBounds.at(i).count()) / kSecond;
      buckets.push_back(
          {is_last ? std::numeric_limits<double>::infinity() : bound, parts.at(i).frames});
    }
    lateness.AddHistogram(
        {{"playout", channel->Order().name}, {"target", FormatTarget(channel->Options().to)}},
        buckets, parts.back().frames, static_cast<double>(parts.back().sum_ns) / kSecond);
  }
  families.push_back(lateness.Take());
}

}  // namespace ipplay::serve
