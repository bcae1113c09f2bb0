// SPDX-License-Identifier: MIT
#include "host/serve/plan.h"

#include <fmt/format.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <span>

#include "host/base/json.h"
#include "host/play/frame_fields.h"
#include "host/play/preparation.h"
#include "host/play/report.h"
#include "host/serve/media_facts.h"
#include "host/serve/request_fields.h"
#include "host/stream/restamper.h"

namespace ipplay::serve {
namespace {

constexpr int kLongestWaitSeconds = 2;

// Readable when reading has taken long enough.
FileDescriptor TimeLimit() {
  FileDescriptor timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  itimerspec when{};
  when.it_value.tv_sec = kLongestWaitSeconds;
  ::timerfd_settime(timer.Get(), 0, &when, nullptr);
  return timer;
}

Json StreamJson(const StreamFacts& facts) {
  Json json;
  json["packet_bytes"] = facts.format.IsRaw() ? Json() : Json(facts.format.packet_bytes);
  json["packets"] = OrNull(facts.Packets());
  json["size_bytes"] = OrNull(facts.bytes);
  json["rate_bps"] = OrNull(facts.BitRate());
  return json;
}

std::string HexText(const FrameField& field) {
  return field.open
             ? fmt::format("{}", fmt::join(std::vector<std::string>(field.bytes.size(), "--"), " "))
             : fmt::format("{:02x}", fmt::join(field.bytes, " "));
}

// The layer is the first word of a field's name; an EtherType belongs to what is before it.
std::string LayerOf(const FrameField& field) {
  return field.name == "EtherType" ? "Ethernet" : field.name.substr(0, field.name.find(' '));
}

Json LayersJson(const std::vector<FrameField>& fields) {
  Json layers = Json::array();
  for (const FrameField& field : fields) {
    const std::string layer = LayerOf(field);
    if (layers.empty() || layers.back()["name"] != layer) {
      layers.push_back({{"name", layer}, {"fields", Json::array()}});
    }
    layers.back()["fields"].push_back({{"offset", field.offset},
                                       {"hex", HexText(field)},
                                       {"field", field.name},
                                       {"value", field.value},
                                       {"open", field.open}});
  }
  return layers;
}

Json SettingsJson(const Settings& settings) {
  Json json = Json::array();
  for (const NamedSetting& setting : Describe(settings)) {
    json.push_back({{"name", setting.name}, {"value", setting.value}});
  }
  return json;
}

void AddFigures(const PlayPlan& plan, Json& json) {
  json["set_rate_bps"] = plan.rates.stream;
  json["frame_rate_bps"] = plan.rates.frame;
  json["frame_size_bytes"] = plan.sizes.frame_bytes;
  json["header_bytes"] = plan.sizes.header_bytes;
  json["payload_bytes"] = plan.sizes.payload_bytes;
  json["copies"] = plan.copies;
  json["gap_ns"] =
      static_cast<double>(plan.sizes.frame_bytes) * 8e9 / (plan.rates.frame * plan.copies);
  json["rounds"] = OrNull(plan.rounds.count);
}

HttpResponse Refused(const Order& order, const Failure& failure) {
  auto details = failure.details;
  for (std::string& line : details) {
    line = WithName(std::move(line), order.opened, order.input);
  }
  const std::string message = WithName(failure.message, order.opened, order.input);
  return ErrorResponse(HttpStatus::kBadRequest, message, FieldOf(message), details);
}

Json PlanJson(const Order& order, const PlayOptions& options, Prepared& prepared) {
  const Path& path = prepared.path;
  const StreamFacts& facts = prepared.facts;
  const PlayPlan& plan = prepared.plan;
  const auto payload = FirstPayload(plan, facts, prepared.input);
  const bool known = path.destination.has_value() || options.dst_mac.has_value();
  Json json{{"schema", kJsonSchema},
            {"command", order.command},
            {"input", order.input},
            {"target", FormatTarget(options.to)},
            {"device", path.adapter.name}};
  AddFigures(plan, json);
  json["stream"] = StreamJson(facts);
  json["notes"] = Json::array();
  for (const std::string& note : plan.notes) {
    json["notes"].push_back(WithName(note, order.opened, order.input));
  }
  json["settings"] = SettingsJson(plan.settings);
  json["layers"] = LayersJson(FirstFrameFields(plan.settings.params, known, payload));
  json["text"] = WithName(DryRun(options, facts, plan, path, payload), order.opened, order.input);
  return json;
}

}  // namespace

HttpResponse PlanOf(const Order& order, const std::vector<Adapter>& adapters) {
  auto parsed = ParseChannelOptions(order.options);
  if (auto* const wrong = std::get_if<std::vector<std::string>>(&parsed)) {
    const std::string first = wrong->front();
    return Refused(order, {ExitStatus::kUsage, first, std::move(*wrong)});
  }
  const auto& options = std::get<PlayOptions>(parsed);
  const FileDescriptor limit = TimeLimit();
  auto prepared = Prepare(options, adapters, limit.Get());
  if (!prepared) {
    return Refused(order, prepared.Error());
  }
  return JsonResponse(PlanJson(order, options, *prepared));
}

}  // namespace ipplay::serve
