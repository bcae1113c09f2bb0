// SPDX-License-Identifier: MIT
// Lineups that clients have loaded: groups of playouts that come and go together.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/lineup/lineup_file.h"
#include "host/serve/http_message.h"
#include "host/serve/playout_store.h"

namespace ipplay::serve {

// Any thread may call any function; those that start or stop take up to seconds.
class LineupStore {
 public:
  // `playouts` outlives this.
  explicit LineupStore(PlayoutStore& playouts) : playouts_(playouts) {}

  HttpResponse List() const;
  // All of its channels, or none.
  HttpResponse Load(const HttpRequest& request);
  HttpResponse Get(const std::string& name) const;
  HttpResponse Delete(const std::string& name);
  HttpResponse Start(const std::string& name);
  HttpResponse Stop(const std::string& name);

 private:
  using Channels = PlayoutStore::Channels;

  // Those of a lineup that have not been deleted since; none where there is no such lineup.
  std::optional<Channels> ChannelsOf(const std::string& name) const;
  // Takes the name, or says that it is taken.
  std::optional<HttpResponse> Reserve(const std::string& name);
  // Into `channels`; where one is refused all are gone, and so is the name.
  std::optional<HttpResponse> AddAll(const std::string& name, Lineup lineup, Channels& channels);
  static Json Brief(const std::string& name, const Channels& channels);
  Json Whole(const std::string& name, const Channels& channels) const;

  PlayoutStore& playouts_;
  mutable std::mutex mutex_;  // guards lineups_
  std::map<std::string, Channels> lineups_;
};

}  // namespace ipplay::serve
