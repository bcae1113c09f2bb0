// SPDX-License-Identifier: MIT
// The playouts of the server: channels of one engine that clients order, change and watch.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/lineup/engine.h"
#include "host/serve/event_feed.h"
#include "host/serve/http_message.h"
#include "host/serve/media_store.h"
#include "host/serve/order.h"

namespace ipplay::serve {

// Any thread may call any function; those that start or stop take up to seconds.
class PlayoutStore {
 public:
  static constexpr std::size_t kMost = 1000;
  using Channels = std::vector<std::shared_ptr<Channel>>;

  // All outlive this. Rights are as Engine says.
  PlayoutStore(std::vector<Adapter> adapters, const MediaStore& media, EventFeed& feed);

  HttpResponse Plan(const HttpRequest& request);
  HttpResponse List() const;
  HttpResponse Create(const HttpRequest& request);
  // Of the playout with this name.
  HttpResponse Get(const std::string& name) const;
  HttpResponse Delete(const std::string& name);
  HttpResponse Start(const std::string& name, const HttpRequest& request);
  HttpResponse Pause(const std::string& name, bool on);
  HttpResponse Stop(const std::string& name);
  HttpResponse Change(const std::string& name, const HttpRequest& request);
  HttpResponse Damage(const std::string& name, const HttpRequest& request);

  // For lineups. An order that is refused leaves nothing behind; `lineup` is its name or empty.
  struct Added {
    std::shared_ptr<Channel> channel;       // null where it was refused
    std::optional<HttpResponse> refusal{};  // why
  };
  Added Add(ChannelOrder order, const std::string& lineup);
  void Remove(const Channels& channels);
  Engine& GetEngine() { return engine_; }
  Json JsonOf(const Channel& channel) const;

  // As it stands, with names that clients know.
  std::vector<ChannelStatus> Statuses() const;
  Channels All() const { return engine_.List(); }

 private:
  struct Entry {
    Order order;
    Json options;
    std::string lineup;
  };
  using EntryPtr = std::shared_ptr<const Entry>;

  EntryPtr EntryOf(const std::string& name) const;
  ChannelStatus StatusOf(const Channel& channel) const;
  HttpResponse Refused(const Entry* entry, const Failure& failure) const;
  // The playout after `failure`, or why it is refused.
  HttpResponse Answer(const Channel& channel, const std::optional<Failure>& failure) const;
  std::string FreeName() const;
  void Take(const ChannelEvent& event);

  const MediaStore& media_;
  EventFeed& feed_;
  const std::vector<Adapter> adapters_;
  mutable std::mutex mutex_;  // guards entries_; nothing else is called under it
  std::map<std::string, EntryPtr> entries_;
  Engine engine_;  // its events need all of the above
};

}  // namespace ipplay::serve
