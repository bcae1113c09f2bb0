// SPDX-License-Identifier: MIT
#include "host/serve/serve_run.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <set>

#include "host/base/capabilities.h"
#include "host/base/confinement.h"
#include "host/base/library_output.h"
#include "host/base/service_manager.h"
#include "host/base/stop_signals.h"
#include "host/base/text.h"
#include "host/base/wall_clock.h"
#include "host/library/library.h"
#include "host/lineup/lineup_report.h"
#include "host/serve/access.h"
#include "host/serve/api_routes.h"
#include "host/serve/http_server.h"

namespace ipplay::serve {
namespace {

// One for each connection, and for each file that may be played.
void AllowDescriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

Result<AccessRules> RulesOf(const ServeOptions& options) {
  AccessRules rules;
  for (const std::string& host : options.hosts) {
    rules.hosts.insert(LowerCase(host));
  }
  if (!options.token_file.empty()) {
    auto token = ReadToken(options.token_file);
    if (!token) {
      return token.Error();
    }
    rules.token = *std::move(token);
  }
  const auto listen = ParseListenAddress(options.listen);
  if (listen && !listen->is_loopback && rules.token.empty()) {
    return UsageFailure(fmt::format(
        "--listen: {} can be reached by others; give --token-file, or listen on 127.0.0.1",
        options.listen));
  }
  return rules;
}

// What a second of all playouts looks like from outside.
Json FiguresOf(const ChannelStatus& status) {
  constexpr const char* kFields[] = {"name",     "state",     "elapsed_ns", "set_rate_bps",
                                     "rate_bps", "ppm",       "datagrams",  "frame_bytes",
                                     "ordered",  "departures"};
  const Json whole = ipplay::JsonOf(status);
  Json json;
  for (const char* const field : kFields) {
    json[field] = whole[field];
  }
  return json;
}

std::optional<Failure> FailureOf(const HttpResponse& response) {
  if (response.status == HttpStatus::kCreated) {
    return std::nullopt;
  }
  return Failure{ExitStatus::kFailed, Json::parse(response.body)["error"].get<std::string>()};
}

HttpRequest OrderOf(const Json& order) {
  HttpRequest request;
  request.body = order.dump();
  return request;
}

// Its parts in the order in which they need one another; the last goes first.
class ServeSession {
 public:
  ServeSession(std::vector<Adapter> adapters, const MediaStore& media, const AccessRules& rules)
      : rules_(rules),
        adapters_(std::move(adapters)),
        feed_(WallClockNow().count() / 1'000'000),
        playouts_(adapters_, media, feed_),
        lineups_(playouts_),
        meters_(feed_),
        parts_{adapters_, media,    thumbnails_, feed_,
               playouts_, lineups_, meters_,     WallClockNow().count()} {
    // What opens adapters has its threads by now.
    KeepCapabilities({});
  }

  // What is there from the beginning.
  std::optional<Failure> Begin(const ServeOptions& options) {
    std::optional<Failure> failure;
    if (!options.first_meter.empty()) {
      failure = FailureOf(meters_.Create(OrderOf(
          {{"name", options.first_meter}, {"options", {{"source", options.first_meter}}}})));
    }
    if (!failure && !options.first_lineup.empty()) {
      failure =
          FailureOf(lineups_.Load(OrderOf({{"name", "first"}, {"text", options.first_lineup}})));
    }
    return failure;
  }

  void Run(HttpServer& server) {
    Router router(ApiRoutes(parts_));
    HttpHooks hooks;
    hooks.check = [this](const HttpRequest& request) { return Refuse(rules_, request); };
    hooks.handle = [&router](HttpRequest request, HttpHooks::Reply reply) {
      router.Handle(std::move(request), std::move(reply));
    };
    hooks.each_second = [this] { EndSecond(); };
    NotifyServiceManager("READY=1");
    server.Run(std::move(hooks), feed_, StopSignals::Fd());
    NotifyServiceManager("STOPPING=1");
    playouts_.GetEngine().Stop(playouts_.All());
  }

 private:
  void EndSecond() {
    Json playouts = Json::array();
    for (const ChannelStatus& status : playouts_.Statuses()) {
      playouts.push_back(FiguresOf(status));
    }
    Json meters = Json::array();
    for (const auto& meter : meters_.All()) {
      meters.push_back(FiguresJson(*meter));
    }
    feed_.Append("figures", {{"playouts", std::move(playouts)}, {"meters", std::move(meters)}});
    NotifyServiceManager("WATCHDOG=1");
  }

  const AccessRules& rules_;
  const std::vector<Adapter> adapters_;
  EventFeed feed_;
  PlayoutStore playouts_;
  LineupStore lineups_;
  MeterStore meters_;
  Thumbnails thumbnails_;
  const Parts parts_;
};

// To the end, once everything is open.
std::optional<Failure> ServeUntilStopped(HttpServer& server, const MediaStore& media,
                                         const AccessRules& rules, const ServeOptions& options) {
  if (const auto missing = MissingRightToSend()) {
    Print(stderr, "ipplay: note: {}; playouts go through UDP sockets, and no meter starts\n",
          *missing);
  }
  StopSignals::Take();
  AllowDescriptors();
  if (auto failure = BecomeUnprivileged({kCapNetRaw, kCapSysNice})) {
    return failure;
  }
  HideMemory();
  const Library library;
  ServeSession session(library.Adapters(), media, rules);
  if (auto failure = session.Begin(options)) {
    return failure;
  }
  Print(Results(), "http://{}/\n", server.Address());
  std::fflush(Results());
  session.Run(server);
  return std::nullopt;
}

}  // namespace

Result<int> RunServer(const ServeOptions& options) {
  const auto rules = RulesOf(options);
  if (!rules) {
    return rules.Error();
  }
  const auto server = HttpServer::Listen(options.listen, {});
  if (!server) {
    return server.Error();
  }
  if (auto failure = options.enter ? options.enter() : std::nullopt) {
    return *std::move(failure);
  }
  const auto media = MediaStore::Open(options.media);
  if (!media) {
    return media.Error();
  }
  if (auto failure = ServeUntilStopped(**server, *media, *rules, options)) {
    return *std::move(failure);
  }
  return static_cast<int>(ExitStatus::kPlayed);
}

}  // namespace ipplay::serve
