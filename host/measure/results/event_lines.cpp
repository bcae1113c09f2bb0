// SPDX-License-Identifier: MIT
#include "host/measure/results/event_lines.h"
#include "host/base/json.h"
#include "host/base/wall_clock.h"

#include "host/measure/results/clock_text.h"
#include "host/measure/results/event_words.h"

namespace ipplay::measure {
namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;

std::string Line(const Json& json) {
  return TextOf(json) + "\n";
}

Json At(std::int64_t time_ns, const char* event) {
  return {{"time", UtcText(time_ns)}, {"time_ns", time_ns}, {"event", event}};
}

void PutStream(Json& json, std::uint32_t number, const StreamId& id) {
  json["stream"] = number;
  json["source"] = SourceText(id.flow);
  json["destination"] = DestinationText(id.flow);
  if (const std::string vlan = VlanText(id.flow); !vlan.empty()) {
    json["vlan"] = vlan;
  }
  if (id.ssrc) {
    json["ssrc"] = *id.ssrc;
  }
}

}  // namespace

void EventLines::Start(const RunInfo& run) {
  Json json = At(run.started_ns, "start");
  json["schema"] = kJsonSchema;
  json["version"] = run.version;
  json["options"] = Json::array();
  for (const auto& [name, value] : run.options) {
    json["options"].push_back({{"name", name}, {"value", value}});
  }
  write_(Line(json));
}

void EventLines::Report(const Event& event) {
  // Some events are of a time shortly before; a clock that was put back begins anew.
  const std::int64_t second = event.time_ns / kSecondNs;
  if (second > second_ || second + 1 < second_) {
    EndSecond();
    second_ = second;
  }
  ++events_;
  if (in_second_[static_cast<std::size_t>(event.kind)]++ >= kMostOfAKind) {
    ++left_out_;
    return;
  }
  Json json = At(event.time_ns, EventName(event.kind));
  json["text"] = EventText(event);
  if (event.stream < streams_.Streams().size()) {
    PutStream(json, event.stream, streams_.Streams()[event.stream]->Id());
  }
  if (event.pid != Event::kNoPid) {
    json["pid"] = event.pid;
  }
  if (const auto figure = FigureOf(event)) {
    json[figure->name] = figure->value;
  }
  if (event.detail != 0) {
    json["table_id"] = event.detail;
  }
  write_(Line(json));
}

void EventLines::EndSecond() {
  for (std::size_t kind = 0; kind < in_second_.size(); ++kind) {
    if (in_second_[kind] > kMostOfAKind) {
      Json json = At((second_ + 1) * kSecondNs, "left_out");
      json["of"] = EventName(static_cast<EventKind>(kind));
      json["count"] = in_second_[kind] - kMostOfAKind;
      write_(Line(json));
    }
  }
  in_second_.fill(0);
}

void EventLines::Finish(std::int64_t end_ns) {
  EndSecond();
  Json json = At(end_ns, "end");
  json["events"] = events_;
  json["left_out"] = left_out_;
  write_(Line(json));
}

}  // namespace ipplay::measure
