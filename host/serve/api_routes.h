// SPDX-License-Identifier: MIT
// The routes of the server and what answers them.
#pragma once

#include <string>
#include <vector>

#include "host/serve/event_feed.h"
#include "host/serve/lineup_store.h"
#include "host/serve/media_store.h"
#include "host/serve/meter_store.h"
#include "host/serve/playout_store.h"
#include "host/serve/router.h"
#include "host/serve/thumbnails.h"

namespace ipplay::serve {

// All outlive the routes.
struct Parts {
  const std::vector<Adapter>& adapters;
  const MediaStore& media;
  Thumbnails& thumbnails;
  EventFeed& feed;
  PlayoutStore& playouts;
  LineupStore& lineups;
  MeterStore& meters;
  std::int64_t started_ns = 0;  // since 1970
};

std::vector<Route> ApiRoutes(const Parts& parts);

}  // namespace ipplay::serve
