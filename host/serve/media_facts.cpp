// SPDX-License-Identifier: MIT
#include "host/serve/media_facts.h"

#include <algorithm>

#include "host/base/json.h"
#include "host/measure/figures/ts_analysis.h"
#include "host/serve/thumbnails.h"
#include "host/stream/capture_file.h"
#include "host/stream/open_input.h"
#include "host/stream/stream_facts.h"

namespace ipplay::serve {
namespace {

constexpr std::size_t kLookedThrough = std::size_t{8} << 20;  // for services

std::string_view KindName(measure::ComponentKind kind) {
  switch (kind) {
    case measure::ComponentKind::kVideo:
      return "video";
    case measure::ComponentKind::kAudio:
      return "audio";
    case measure::ComponentKind::kSubtitles:
      return "subtitles";
    case measure::ComponentKind::kData:
      return "data";
  }
  return "";
}

Json ComponentJson(const measure::Component& component) {
  Json json{{"pid", component.pid},
            {"stream_type", component.stream_type},
            {"kind", KindName(component.kind)}};
  if (component.coding[0] != '\0') {
    json["coding"] = component.coding;
  }
  if (!component.language.empty()) {
    json["language"] = component.language;
  }
  return json;
}

bool HasVideo(const measure::Service& service) {
  return std::ranges::any_of(service.components, [](const measure::Component& component) {
    return component.kind == measure::ComponentKind::kVideo;
  });
}

Json ServicesJson(const measure::ServiceList& list, const std::string& path) {
  Json services = Json::array();
  for (const auto& [number, service] : list.Services()) {
    const auto name = list.Names().find(number);
    const bool has_name = name != list.Names().end();
    Json json{{"number", number},
              {"name", has_name ? name->second.name : ""},
              {"provider", has_name ? name->second.provider : ""},
              {"pmt_pid", service.pmt_pid}};
    json["pcr_pid"] = service.pcr_pid == measure::kNullPid ? Json() : Json(service.pcr_pid);
    json["components"] = Json::array();
    for (const measure::Component& component : service.components) {
      json["components"].push_back(ComponentJson(component));
    }
    json["thumbnail"] = HasVideo(service) ? Json(Thumbnails::AddressOf(path, number)) : Json();
    services.push_back(std::move(json));
  }
  return services;
}

// The services that the beginning of the stream names; `input` is at its first packet.
void AddServices(Input& input, const std::string& path, Json& json) {
  const auto ts = std::make_unique<measure::TsAnalysis>();
  std::vector<std::uint8_t> buffer(std::size_t{188} * 348);
  std::size_t looked_through = 0;
  while (looked_through < kLookedThrough) {
    const std::size_t count = input.Read(buffer);
    if (count == 0) {
      break;
    }
    looked_through += count;
    ts->Add(std::span(buffer).first(count), static_cast<std::int64_t>(looked_through), false);
  }
  const measure::ServiceList& list = ts->Services();
  json["transport_stream_id"] = list.HasPat() ? Json(list.StreamId()) : Json();
  json["services"] = ServicesJson(list, path);
}

Result<Input> Open(const MediaFile& file, bool raw) {
  return OpenInput(MediaStore::PathOf(file.fd), {.raw = raw}, -1);
}

void AddFacts(const StreamFacts& facts, Json& json) {
  const auto rate = facts.BitRate();
  json["packet_bytes"] = facts.format.IsRaw() ? Json() : Json(facts.format.packet_bytes);
  json["packets"] = OrNull(facts.Packets());
  json["rate_bps"] = OrNull(rate);
  const bool has_length = rate && *rate > 0 && facts.Packets();
  json["duration_ns"] =
      has_length
          ? Json(static_cast<double>(*facts.Packets()) * facts.format.CountedBytes() * 8e9 / *rate)
          : Json();
}

}  // namespace

std::string WithName(std::string text, const std::string& opened, const std::string& name) {
  std::size_t at = 0;
  while (!opened.empty() && (at = text.find(opened, at)) != std::string::npos) {
    const std::size_t end = at + opened.size();
    if (end < text.size() && text[end] >= '0' && text[end] <= '9') {
      at = end;  // another descriptor
      continue;
    }
    text.replace(at, opened.size(), name);
    at += name.size();
  }
  return text;
}

Result<Json> MediaFacts(const MediaFile& file) {
  const std::string opened = MediaStore::PathOf(file.fd);
  const bool is_capture = IsCapture(opened);
  auto input = Open(file, false);
  auto facts = input ? Examine(*input, {}) : Result<StreamFacts>(input.Error());
  const bool is_raw = !facts && !is_capture;
  if (is_raw) {
    input = Open(file, true);
    facts = input ? Examine(*input, {.raw = true}) : Result<StreamFacts>(input.Error());
  }
  if (!facts) {
    const Failure& failure = facts.Error();
    return UsageFailure(WithName(failure.message, opened, file.entry.path));
  }
  Json json{{"schema", kJsonSchema},
            {"path", file.entry.path},
            {"size_bytes", file.entry.bytes},
            {"modified_ns", file.entry.modified_ns},
            {"kind", is_capture ? "capture"
                     : is_raw   ? "raw"
                                : "stream"}};
  AddFacts(*facts, json);
  AddServices(*input, file.entry.path, json);
  json["notes"] = Json::array();
  for (const std::string& note : input->Notes()) {
    json["notes"].push_back(WithName(note, opened, file.entry.path));
  }
  return json;
}

}  // namespace ipplay::serve
