// SPDX-License-Identifier: MIT
#include "host/serve/api_routes.h"

#include <functional>
#include <utility>

#include "host/base/machine.h"
#include "host/base/wall_clock.h"
#include "host/library/device_commands.h"
#include "host/serve/media_facts.h"
#include "host/serve/metrics.h"
#include "host/serve/page_files.h"

namespace ipplay::serve {
namespace {

HttpResponse FileResponse(const HttpRequest& request, const PageFile* file) {
  if (file == nullptr) {
    return ErrorResponse(HttpStatus::kNotFound, "there is nothing at this path");
  }
  HttpResponse response;
  response.content_type = file->content_type;
  response.headers = {{"ETag", std::string(file->etag)}, {"Cache-Control", "no-cache"}};
  if (request.Header("if-none-match") == file->etag) {
    response.status = HttpStatus::kNotModified;
  } else {
    response.body = file->content;
  }
  return response;
}

HttpResponse ServerJson(const Parts& parts) {
  return JsonResponse({{"schema", kJsonSchema},
                       {"version", IPPLAYOUT_VERSION},
                       {"machine", NameOfMachine()},
                       {"started_ns", parts.started_ns},
                       {"time_ns", WallClockNow().count()},
                       {"media_folders", parts.media.Folders()}});
}

Json EntryJson(const MediaEntry& entry) {
  return {{"path", entry.path}, {"size_bytes", entry.bytes}, {"modified_ns", entry.modified_ns}};
}

HttpResponse MediaJson(const MediaStore& media) {
  const auto listing = media.List();
  Json json{{"schema", kJsonSchema}, {"media", Json::array()}, {"left_out", listing.left_out}};
  for (const MediaEntry& entry : listing.entries) {
    json["media"].push_back(EntryJson(entry));
  }
  return JsonResponse(json);
}

using ForFile = std::function<HttpResponse(const MediaFile& file, const HttpRequest& request)>;

// For the file that the query names.
Route::Handler OfFile(const MediaStore& media, ForFile answer) {
  return [&media, answer = std::move(answer)](const HttpRequest& request, const std::string&) {
    const auto path = request.query.find("path");
    if (path == request.query.end()) {
      return ErrorResponse(HttpStatus::kBadRequest, "path: missing; give that of a file", "path");
    }
    const auto file = media.OpenFile(path->second);
    return file ? answer(*file, request)
                : ErrorResponse(HttpStatus::kNotFound, file.Error().message, "path");
  };
}

HttpResponse FactsJson(const MediaFile& file, const HttpRequest& /*request*/) {
  const auto facts = MediaFacts(file);
  return facts ? JsonResponse(*facts) : FailureResponse(facts.Error(), "path");
}

HttpResponse Events(const EventFeed& feed, const HttpRequest& request) {
  const std::string_view last = request.Header("last-event-id");
  const auto after = request.query.find("after");
  const std::string_view id = last.empty() && after != request.query.end() ? after->second : last;
  HttpResponse response;
  response.events_from = feed.After(id);
  return response;
}

using Routes = std::vector<Route>;

void AddServer(const Parts& parts, Routes& routes) {
  const auto page = [](const HttpRequest& request, const std::string& name) {
    return FileResponse(request, FindPageFile(name.empty() ? "index.html" : name));
  };
  routes.push_back({"GET", "/", page, true});
  routes.push_back({"GET", "/page/{file}", page, true});
  routes.push_back({"GET", "/api/v1", [parts](const auto&...) { return ServerJson(parts); }});
  routes.push_back({"GET", "/api/v1/openapi.json",
                    [](const HttpRequest& request, const std::string&) {
                      return FileResponse(request, FindPageFile("openapi.json"));
                    },
                    true});
  routes.push_back({"GET", "/api/v1/events",
                    [&feed = parts.feed](const HttpRequest& request, const std::string&) {
                      return Events(feed, request);
                    },
                    true});
  routes.push_back({"GET", "/api/v1/devices", [&adapters = parts.adapters](const auto&...) {
                      return JsonResponse(DevicesJson(adapters));
                    }});
}

void AddMedia(const MediaStore& media, Thumbnails& thumbnails, Routes& routes) {
  routes.push_back({"GET", "/api/v1/media", [&media](const auto&...) { return MediaJson(media); }});
  routes.push_back({"GET", "/api/v1/media/facts", OfFile(media, FactsJson)});
  routes.push_back({"GET", "/api/v1/media/thumbnail",
                    OfFile(media, [&thumbnails](const MediaFile& file, const HttpRequest& request) {
                      return thumbnails.Get(file, request);
                    })});
}

void AddPlayouts(PlayoutStore& playouts, Routes& routes) {
  const std::string one = "/api/v1/playouts/{name}";
  const auto add = [&routes](const char* method, const std::string& path, Route::Handler handler) {
    routes.push_back({method, path, std::move(handler)});
  };
  using Request = const HttpRequest&;
  using Name = const std::string&;
  add("POST", "/api/v1/plan", [&playouts](Request r, Name) { return playouts.Plan(r); });
  add("GET", "/api/v1/playouts", [&playouts](Request, Name) { return playouts.List(); });
  add("POST", "/api/v1/playouts", [&playouts](Request r, Name) { return playouts.Create(r); });
  add("GET", one, [&playouts](Request, Name name) { return playouts.Get(name); });
  add("DELETE", one, [&playouts](Request, Name name) { return playouts.Delete(name); });
  add("POST", one + "/start",
      [&playouts](Request r, Name name) { return playouts.Start(name, r); });
  add("POST", one + "/pause",
      [&playouts](Request, Name name) { return playouts.Pause(name, true); });
  add("POST", one + "/resume",
      [&playouts](Request, Name name) { return playouts.Pause(name, false); });
  add("POST", one + "/stop", [&playouts](Request, Name name) { return playouts.Stop(name); });
  add("POST", one + "/change",
      [&playouts](Request r, Name name) { return playouts.Change(name, r); });
  add("POST", one + "/faults",
      [&playouts](Request r, Name name) { return playouts.Damage(name, r); });
}

void AddLineups(LineupStore& lineups, Routes& routes) {
  const std::string one = "/api/v1/lineups/{name}";
  const auto add = [&routes](const char* method, const std::string& path, Route::Handler handler) {
    routes.push_back({method, path, std::move(handler)});
  };
  using Request = const HttpRequest&;
  using Name = const std::string&;
  add("GET", "/api/v1/lineups", [&lineups](Request, Name) { return lineups.List(); });
  add("POST", "/api/v1/lineups", [&lineups](Request r, Name) { return lineups.Load(r); });
  add("GET", one, [&lineups](Request, Name name) { return lineups.Get(name); });
  add("DELETE", one, [&lineups](Request, Name name) { return lineups.Delete(name); });
  add("POST", one + "/start", [&lineups](Request, Name name) { return lineups.Start(name); });
  add("POST", one + "/stop", [&lineups](Request, Name name) { return lineups.Stop(name); });
}

void AddMeters(MeterStore& meters, Routes& routes) {
  const std::string one = "/api/v1/meters/{name}";
  const auto add = [&routes](const char* method, const std::string& path, Route::Handler handler) {
    routes.push_back({method, path, std::move(handler)});
  };
  using Request = const HttpRequest&;
  using Name = const std::string&;
  add("GET", "/api/v1/meters", [&meters](Request, Name) { return meters.List(); });
  add("POST", "/api/v1/meters", [&meters](Request r, Name) { return meters.Create(r); });
  add("GET", one, [&meters](Request, Name name) { return meters.Get(name); });
  add("DELETE", one, [&meters](Request, Name name) { return meters.Delete(name); });
  add("POST", one + "/stop", [&meters](Request, Name name) { return meters.Stop(name); });
  add("GET", one + "/report", [&meters](Request, Name name) { return meters.Report(name); });
}

HttpResponse MetricsResponse(const Parts& parts) {
  HttpResponse response;
  response.content_type = "text/plain; version=0.0.4; charset=utf-8";
  response.body = MetricsText(parts.playouts, parts.meters);
  return response;
}

}  // namespace

std::vector<Route> ApiRoutes(const Parts& parts) {
  Routes routes;
  AddServer(parts, routes);
  AddMedia(parts.media, parts.thumbnails, routes);
  AddPlayouts(parts.playouts, routes);
  AddLineups(parts.lineups, routes);
  AddMeters(parts.meters, routes);
  routes.push_back({"GET", "/metrics", [parts](const auto&...) { return MetricsResponse(parts); }});
  return routes;
}

}  // namespace ipplay::serve
