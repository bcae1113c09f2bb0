// SPDX-License-Identifier: MIT
#include "host/measure/results/second_lines.h"
#include "host/base/json.h"
#include "host/base/wall_clock.h"

#include <cmath>
#include <string>

#include "host/measure/results/clock_text.h"

namespace ipplay::measure {
namespace {

// Thousandths are more than a clock knows.
Json Rounded(const std::optional<double>& value) {
  return value ? Json(std::round(*value * 1000) / 1000) : Json();
}

// Bits per second; null for no time at all.
Json RateOf(std::uint64_t bytes, std::int64_t length_ns) {
  if (length_ns <= 0) {
    return {};
  }
  return Rounded(static_cast<double>(bytes) * 8e9 / static_cast<double>(length_ns));
}

// Every field in the order of the columns; null where it has no value.
Json FieldsOf(const StreamSecond& second, const StreamId& id) {
  const std::string vlan = VlanText(id.flow);
  const bool has_ts = second.ts_packets.has_value();
  const auto of_ts = [has_ts](std::uint64_t value) { return has_ts ? Json(value) : Json(); };
  return {{"time", UtcText(second.start_ns)},
          {"time_ns", second.start_ns},
          {"elapsed_ns", second.length_ns},
          {"stream", second.stream},
          {"source", SourceText(id.flow)},
          {"destination", DestinationText(id.flow)},
          {"vlan", vlan.empty() ? Json() : Json(vlan)},
          {"ssrc", OrNull(id.ssrc)},
          {"frames", second.frames},
          {"frame_rate_bps", RateOf(second.frame_bytes, second.length_ns)},
          {"payload_rate_bps", RateOf(second.payload_bytes, second.length_ns)},
          {"gap_max_ns", second.longest_gap_ns},
          {"lost", OrNull(second.lost)},
          {"duplicates", second.duplicates},
          {"reordered", OrNull(second.reordered)},
          {"checksums_bad", second.bad_checksums},
          {"jitter_ns", Rounded(second.jitter_ns)},
          {"delay_factor_ns", Rounded(second.delay_factor_ns)},
          {"ts_packets", OrNull(second.ts_packets)},
          {"continuity_errors", of_ts(second.continuity_errors)},
          {"ts_errors", of_ts(second.errors)},
          {"ts_second_priority_errors", of_ts(second.second_priority_errors)},
          {"ts_third_priority_errors", of_ts(second.third_priority_errors)},
          {"pcrs", of_ts(second.pcrs)},
          {"pcr_arrival_peak_to_peak_ns", Rounded(second.pcr_spread_ns)}};
}

std::string CsvLine(const Json& fields, bool names) {
  std::string line;
  for (const auto& [name, value] : fields.items()) {
    line += line.empty() ? "" : ",";
    line += names               ? name
            : value.is_string() ? value.get<std::string>()
            : value.is_null()   ? ""
                                : value.dump();
  }
  return line + "\n";
}

std::string JsonLine(const Json& fields) {
  Json present;
  for (const auto& [name, value] : fields.items()) {
    if (!value.is_null()) {
      present[name] = value;
    }
  }
  return present.dump() + "\n";
}

}  // namespace

SecondLines::SecondLines(Format format, Write write, const StreamTable& streams)
    : format_(format), write_(std::move(write)), streams_(streams) {
  if (format_ == Format::kCsv) {
    write_(CsvLine(FieldsOf({}, {}), true));
  }
}

void SecondLines::Add(const StreamSecond& second) {
  const Json fields = FieldsOf(second, streams_.Streams()[second.stream]->Id());
  write_(format_ == Format::kCsv ? CsvLine(fields, false) : JsonLine(fields));
}

}  // namespace ipplay::measure
