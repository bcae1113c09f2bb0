// SPDX-License-Identifier: MIT
#include "host/serve/playout_store.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/base/wall_clock.h"
#include "host/lineup/lineup_report.h"
#include "host/play/orders.h"
#include "host/serve/media_facts.h"
#include "host/serve/plan.h"
#include "host/serve/request_fields.h"

namespace ipplay::serve {
namespace {

constexpr std::int64_t kMostDamaged = 1'000'000;
constexpr std::int64_t kLongestBreakNs = 3'600'000'000'000;

std::string_view NameOf(Restart restart) {
  switch (restart) {
    case Restart::kNever:
      return "never";
    case Restart::kOnFailure:
      return "on-failure";
    case Restart::kAlways:
      return "always";
  }
  return "";
}

// As a client could have given them; `input` in place of what was opened.
Json OptionsJson(const std::vector<ChannelOption>& options) {
  Json json = Json::object();
  for (const ChannelOption& option : options) {
    json[option.name] =
        option.values.size() == 1 ? Json(option.values.front()) : Json(option.values);
  }
  return json;
}

}  // namespace

PlayoutStore::PlayoutStore(std::vector<Adapter> adapters, const MediaStore& media, EventFeed& feed)
    : media_(media),
      feed_(feed),
      adapters_(std::move(adapters)),
      engine_(adapters_, [this](const ChannelEvent& event) { Take(event); }) {}

PlayoutStore::EntryPtr PlayoutStore::EntryOf(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(name);
  return found == entries_.end() ? nullptr : found->second;
}

void PlayoutStore::Take(const ChannelEvent& event) {
  std::string text = event.text;
  if (const auto entry = EntryOf(event.channel)) {
    text = WithName(std::move(text), entry->order.opened, entry->order.input);
  }
  feed_.Append("playout", {{"time_ns", event.time_ns},
                           {"playout", event.channel},
                           {"state", NameOf(event.state)},
                           {"text", text}});
}

ChannelStatus PlayoutStore::StatusOf(const Channel& channel) const {
  ChannelStatus status = channel.Status();
  if (const auto entry = EntryOf(status.name)) {
    const Order& order = entry->order;
    status.input = order.input;
    status.last_error = WithName(std::move(status.last_error), order.opened, order.input);
    for (std::string& note : status.notes) {
      note = WithName(std::move(note), order.opened, order.input);
    }
  }
  return status;
}

std::vector<ChannelStatus> PlayoutStore::Statuses() const {
  std::vector<ChannelStatus> statuses;
  for (const auto& channel : engine_.List()) {
    statuses.push_back(StatusOf(*channel));
  }
  return statuses;
}

Json PlayoutStore::JsonOf(const Channel& channel) const {
  Json json = ipplay::JsonOf(StatusOf(channel));
  const ChannelOrder& order = channel.Order();
  const auto entry = EntryOf(order.name);
  const bool has_lineup = entry && !entry->lineup.empty();
  json["lineup"] = has_lineup ? Json(entry->lineup) : Json();
  json["options"] = entry ? entry->options : Json::object();
  json["restart"] = NameOf(order.restart);
  json["restart_after_ns"] = order.restart_after.count();
  json["command"] = entry ? entry->order.command : "";
  return json;
}

HttpResponse PlayoutStore::Refused(const Entry* entry, const Failure& failure) const {
  if (entry == nullptr) {
    return FailureResponse(failure);
  }
  Failure named = failure;
  named.message = WithName(failure.message, entry->order.opened, entry->order.input);
  return FailureResponse(named);
}

HttpResponse PlayoutStore::Answer(const Channel& channel,
                                  const std::optional<Failure>& failure) const {
  if (failure) {
    return Refused(EntryOf(channel.Order().name).get(), *failure);
  }
  Json json{{"schema", kJsonSchema}};
  json.update(JsonOf(channel));
  return JsonResponse(json);
}

HttpResponse PlayoutStore::Plan(const HttpRequest& request) {
  RequestFields fields(request.body, {"options"});
  auto options = fields.Options("options");
  if (!fields.Require("options", options) || fields.Error()) {
    return *fields.Error();
  }
  const auto order = MakeOrder(*std::move(options), media_);
  if (!order) {
    return FailureResponse(order.Error(), FieldOf(order.Error().message));
  }
  // Where there is no right to send, the plan is another one.
  HttpResponse plan;
  engine_.OnStartingThread([&] { plan = PlanOf(*order, adapters_); });
  return plan;
}

HttpResponse PlayoutStore::List() const {
  Json json{{"schema", kJsonSchema}, {"playouts", Json::array()}};
  for (const auto& channel : engine_.List()) {
    json["playouts"].push_back(JsonOf(*channel));
  }
  return JsonResponse(json);
}

std::string PlayoutStore::FreeName() const {
  for (int number = 1;; ++number) {
    auto name = fmt::format("playout-{}", number);
    if (!engine_.Find(name)) {
      return name;
    }
  }
}

PlayoutStore::Added PlayoutStore::Add(ChannelOrder order, const std::string& lineup) {
  if (engine_.List().size() >= kMost) {
    return {nullptr, ErrorResponse(HttpStatus::kTooMany,
                                   fmt::format("{} playouts are there; delete some", kMost))};
  }
  const auto given = OptionsJson(order.options);
  auto made = MakeOrder(std::move(order.options), media_);
  if (!made) {
    return {nullptr, FailureResponse(made.Error(), FieldOf(made.Error().message))};
  }
  order.options = made->options;
  const auto parsed = ParseChannelOptions(order.options);
  if (const auto* const wrong = std::get_if<std::vector<std::string>>(&parsed)) {
    return {nullptr, ErrorResponse(HttpStatus::kBadRequest, wrong->front(), FieldOf(wrong->front()),
                                   *wrong)};
  }
  if (engine_.Find(order.name)) {
    return {nullptr,
            ErrorResponse(HttpStatus::kConflict,
                          fmt::format("name: {} is taken; give another one", order.name), "name")};
  }
  const auto entry = std::make_shared<Entry>();
  *entry = {std::move(*made), given, lineup};
  const auto channel = engine_.Add(order);
  if (!channel) {
    return {nullptr, FailureResponse(channel.Error())};
  }
  {
    const std::lock_guard lock(mutex_);
    entries_[order.name] = entry;
  }
  Take({WallClockNow().count(), order.name, ChannelState::kReady, "created"});
  return {*channel};
}

HttpResponse PlayoutStore::Create(const HttpRequest& request) {
  RequestFields fields(request.body, {"name", "options", "restart", "restart_after_ns", "start"});
  ChannelOrder order;
  order.name = fields.Name("name").value_or("");
  const auto options = fields.Options("options");
  const auto restart = fields.Text("restart");
  const auto after = fields.Whole("restart_after_ns", 0, INT64_MAX / 4);
  const bool start = fields.Flag("start").value_or(false);
  const auto policy = ParseRestart(restart.value_or("never"));
  if (!policy) {
    fields.Blame("restart",
                 fmt::format("restart: \"{}\" is not valid; give {}", *restart, kRestartWords));
  }
  if (!fields.Require("options", options) || fields.Error()) {
    return *fields.Error();
  }
  order.name = order.name.empty() ? FreeName() : order.name;
  order.options = *options;
  order.restart = *policy;
  order.restart_after = after ? std::chrono::nanoseconds(*after) : order.restart_after;
  const auto added = Add(order, "");
  if (added.refusal) {
    return *added.refusal;
  }
  if (start) {
    added.channel->Start();  // its state says how that went
  }
  Json json{{"schema", kJsonSchema}};
  json.update(JsonOf(*added.channel));
  auto response = JsonResponse(json, HttpStatus::kCreated);
  response.headers.emplace_back("Location", AddressOf("playouts", order.name));
  return response;
}

HttpResponse PlayoutStore::Get(const std::string& name) const {
  const auto channel = engine_.Find(name);
  return channel ? Answer(*channel, std::nullopt) : NoSuch("playout", name);
}

void PlayoutStore::Remove(const Channels& channels) {
  engine_.Stop(channels);
  for (const auto& channel : channels) {
    const std::string& name = channel->Order().name;
    if (engine_.Remove(name)) {
      continue;  // by somebody else
    }
    {
      const std::lock_guard lock(mutex_);
      entries_.erase(name);
    }
    feed_.Append("playout", {{"playout", name}, {"state", "removed"}, {"text", "removed"}});
  }
}

HttpResponse PlayoutStore::Delete(const std::string& name) {
  const auto channel = engine_.Find(name);
  if (!channel) {
    return NoSuch("playout", name);
  }
  Remove({channel});
  return NoContent();
}

HttpResponse PlayoutStore::Start(const std::string& name, const HttpRequest& request) {
  RequestFields fields(request.body, {"at_ns"});
  const auto at = fields.Whole("at_ns", 0, INT64_MAX);
  if (fields.Error()) {
    return *fields.Error();
  }
  const auto channel = engine_.Find(name);
  if (!channel) {
    return NoSuch("playout", name);
  }
  const auto time = at ? std::optional(FromWallClock(std::chrono::nanoseconds(*at))) : std::nullopt;
  auto failure = channel->Start(time);
  if (failure) {
    failure->status = ExitStatus::kFailed;  // the request was right
  }
  return Answer(*channel, failure);
}

HttpResponse PlayoutStore::Pause(const std::string& name, bool on) {
  const auto channel = engine_.Find(name);
  return channel ? Answer(*channel, channel->Pause(on)) : NoSuch("playout", name);
}

HttpResponse PlayoutStore::Stop(const std::string& name) {
  const auto channel = engine_.Find(name);
  return channel ? Answer(*channel, channel->Stop()) : NoSuch("playout", name);
}

HttpResponse PlayoutStore::Change(const std::string& name, const HttpRequest& request) {
  RequestFields fields(request.body, {"bitrate", "ppm"});
  ChannelChange change;
  change.ppm = fields.Number("ppm");
  change.bit_rate = fields.BitRate("bitrate");
  if (fields.Error()) {
    return *fields.Error();
  }
  const auto channel = engine_.Find(name);
  return channel ? Answer(*channel, channel->Change(change)) : NoSuch("playout", name);
}

HttpResponse PlayoutStore::Damage(const std::string& name, const HttpRequest& request) {
  RequestFields fields(request.body, {"kind", "count", "amount", "length_ns"});
  const auto name_of_kind = fields.Text("kind");
  if (!fields.Require("kind", name_of_kind)) {
    return *fields.Error();
  }
  const auto kind = ParseFault(*name_of_kind);
  if (!kind) {
    fields.Blame("kind",
                 fmt::format("kind: \"{}\" is not valid; give {}", *name_of_kind, kFaultNames));
    return *fields.Error();
  }
  const auto count = fields.Whole("count", 1, kMostDamaged);
  const auto amount = fields.Whole("amount", 1, kMostDamaged);
  const auto length = fields.Whole("length_ns", 1, kLongestBreakNs);
  const bool is_break = *kind == ActionKind::kBreak;
  const bool has_amount = *kind == ActionKind::kDelay || *kind == ActionKind::kCorrupt;
  if (is_break) {
    fields.Require("length_ns", length);
  }
  for (const auto& [field, is_wrong] : {std::pair{"count", count && is_break},
                                        {"amount", amount && !has_amount},
                                        {"length_ns", length && !is_break}}) {
    if (is_wrong) {
      fields.Blame(field, fmt::format("{}: {} has none; leave it out", field, *name_of_kind));
    }
  }
  if (fields.Error()) {
    return *fields.Error();
  }
  const Action fault{.kind = *kind,
                     .length = std::chrono::nanoseconds(length.value_or(0)),
                     .count = static_cast<std::uint32_t>(count.value_or(1)),
                     .amount = static_cast<std::uint32_t>(amount.value_or(1))};
  const auto channel = engine_.Find(name);
  return channel ? Answer(*channel, channel->Damage(fault)) : NoSuch("playout", name);
}

}  // namespace ipplay::serve
