// SPDX-License-Identifier: MIT
// The meters of the server, and the thread that opens adapters for them.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/serve/event_feed.h"
#include "host/serve/http_message.h"
#include "host/serve/meter.h"

namespace ipplay::serve {

// Any thread may call any function.
class MeterStore {
 public:
  static constexpr std::size_t kMost = 16;

  // Of the rights of the thread that makes it, those to capture stay with a thread of its own; that
  // one needs none any more. `feed` outlives this.
  explicit MeterStore(EventFeed& feed);
  ~MeterStore();

  HttpResponse List() const;
  HttpResponse Create(const HttpRequest& request);
  HttpResponse Get(const std::string& name) const;
  HttpResponse Delete(const std::string& name);
  HttpResponse Stop(const std::string& name);
  HttpResponse Report(const std::string& name) const;

  // In the order of names.
  std::vector<std::shared_ptr<const Meter>> All() const;

 private:
  class Opener;

  std::shared_ptr<Meter> Find(const std::string& name) const;
  std::string FreeName() const;

  EventFeed& feed_;
  std::unique_ptr<Opener> opener_;
  mutable std::mutex mutex_;  // guards meters_
  std::map<std::string, std::shared_ptr<Meter>> meters_;
};

// What a second of the meter looks like from outside.
Json FiguresJson(const Meter& meter);

}  // namespace ipplay::serve
