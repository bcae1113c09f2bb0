// SPDX-License-Identifier: MIT
#include "host/serve/lineup_store.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/serve/request_fields.h"

namespace ipplay::serve {
namespace {

// What is wrong with the text, line by line.
HttpResponse Mistaken(const std::vector<Mistake>& mistakes) {
  std::vector<std::string> details;
  for (const Mistake& mistake : mistakes) {
    details.push_back(fmt::format("line {}: {}", mistake.line, mistake.text));
  }
  const std::string first = details.front();
  return ErrorResponse(HttpStatus::kBadRequest, first, "text", details);
}

}  // namespace

std::optional<LineupStore::Channels> LineupStore::ChannelsOf(const std::string& name) const {
  Channels channels;
  {
    const std::lock_guard lock(mutex_);
    const auto found = lineups_.find(name);
    if (found == lineups_.end()) {
      return std::nullopt;
    }
    channels = found->second;
  }
  std::erase_if(channels, [this](const auto& channel) {
    return playouts_.GetEngine().Find(channel->Order().name) != channel;
  });
  return channels;
}

Json LineupStore::Brief(const std::string& name, const Channels& channels) {
  Json states = Json::object();
  for (const auto& channel : channels) {
    const std::string state(NameOf(channel->Status().state));
    states[state] = states.value(state, 0) + 1;
  }
  return {{"name", name}, {"channels", channels.size()}, {"states", states}};
}

Json LineupStore::Whole(const std::string& name, const Channels& channels) const {
  Json json{{"schema", kJsonSchema}};
  json.update(Brief(name, channels));
  json["playouts"] = Json::array();
  for (const auto& channel : channels) {
    json["playouts"].push_back(playouts_.JsonOf(*channel));
  }
  return json;
}

HttpResponse LineupStore::List() const {
  std::vector<std::string> names;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [name, channels] : lineups_) {
      names.push_back(name);
    }
  }
  Json json{{"schema", kJsonSchema}, {"lineups", Json::array()}};
  for (const std::string& name : names) {
    if (const auto channels = ChannelsOf(name)) {
      json["lineups"].push_back(Brief(name, *channels));
    }
  }
  return JsonResponse(json);
}

std::optional<HttpResponse> LineupStore::Reserve(const std::string& name) {
  const std::lock_guard lock(mutex_);
  if (lineups_.emplace(name, Channels()).second) {
    return std::nullopt;
  }
  return ErrorResponse(HttpStatus::kConflict,
                       fmt::format("name: {} is taken; give another one", name), "name");
}

std::optional<HttpResponse> LineupStore::AddAll(const std::string& name, Lineup lineup,
                                                Channels& channels) {
  for (PlannedChannel& planned : lineup.channels) {
    const std::string channel = planned.order.name;
    auto added = playouts_.Add(std::move(planned.order), name);
    if (added.refusal) {
      playouts_.Remove(channels);
      const std::lock_guard lock(mutex_);
      lineups_.erase(name);
      const Json why = Json::parse(added.refusal->body);
      return ErrorResponse(
          added.refusal->status,
          fmt::format("line {}: {}: {}", planned.line, channel, why["error"].get<std::string>()),
          "text");
    }
    channels.push_back(std::move(added.channel));
  }
  const std::lock_guard lock(mutex_);
  lineups_[name] = channels;
  return std::nullopt;
}

HttpResponse LineupStore::Load(const HttpRequest& request) {
  RequestFields fields(request.body, {"name", "text", "start"});
  const auto name = fields.Name("name");
  const auto text = fields.Text("text");
  const bool start = fields.Flag("start").value_or(true);
  if (!fields.Require("name", name) || !fields.Require("text", text) || fields.Error()) {
    return *fields.Error();
  }
  Lineup lineup = ParseLineup(*text, "");
  if (!lineup.mistakes.empty()) {
    return Mistaken(lineup.mistakes);
  }
  if (auto taken = Reserve(*name)) {
    return *std::move(taken);
  }
  Channels channels;
  if (auto refusal = AddAll(*name, std::move(lineup), channels)) {
    return *std::move(refusal);
  }
  if (start) {
    playouts_.GetEngine().StartAsOrdered(channels);
  }
  auto response = JsonResponse(Whole(*name, channels), HttpStatus::kCreated);
  response.headers.emplace_back("Location", AddressOf("lineups", *name));
  return response;
}

HttpResponse LineupStore::Get(const std::string& name) const {
  const auto channels = ChannelsOf(name);
  return channels ? JsonResponse(Whole(name, *channels)) : NoSuch("lineup", name);
}

HttpResponse LineupStore::Delete(const std::string& name) {
  const auto channels = ChannelsOf(name);
  if (!channels) {
    return NoSuch("lineup", name);
  }
  playouts_.Remove(*channels);
  const std::lock_guard lock(mutex_);
  lineups_.erase(name);
  return NoContent();
}

HttpResponse LineupStore::Start(const std::string& name) {
  auto channels = ChannelsOf(name);
  if (!channels) {
    return NoSuch("lineup", name);
  }
  std::erase_if(*channels, [](const auto& channel) { return Plays(channel->Status().state); });
  playouts_.GetEngine().Start(*channels);
  return Get(name);
}

HttpResponse LineupStore::Stop(const std::string& name) {
  const auto channels = ChannelsOf(name);
  if (!channels) {
    return NoSuch("lineup", name);
  }
  playouts_.GetEngine().Stop(*channels);
  return Get(name);
}

}  // namespace ipplay::serve
