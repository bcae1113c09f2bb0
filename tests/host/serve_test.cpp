// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/base/event.h"
#include "host/serve/api_routes.h"
#include "host/serve/event_feed.h"
#include "host/serve/http_server.h"

namespace ipplay::serve {
namespace {

constexpr std::int64_t kEpoch = 7;

std::size_t Occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

TEST(EventFeed, WhoFallsBehindTheBoundIsToldHowManyAreLost) {
  EventFeed feed(kEpoch, 1000);
  const std::uint64_t start = feed.End();
  for (int i = 0; i < 100; ++i) {
    feed.Append("playout", {{"number", i}});
  }
  const auto chunk = feed.Read(start, 1 << 20);
  EXPECT_EQ(chunk.next, feed.End());
  const std::size_t kept = Occurrences(chunk.text, "event: playout");
  EXPECT_GT(kept, 5U);
  EXPECT_LE(chunk.text.size(), 1200U);
  EXPECT_NE(chunk.text.find("\"lost\":" + std::to_string(100 - kept)), std::string::npos);
  EXPECT_NE(chunk.text.find("\"number\":99"), std::string::npos);
  // The event about it has the id of the last one that is lost: who comes back with it goes on.
  EXPECT_TRUE(chunk.text.starts_with("id: 7-" + std::to_string(start + 99 - kept) + "\n"));
}

TEST(EventFeed, ReadsOnInPartsOfTheWantedSize) {
  EventFeed feed(kEpoch);
  std::uint64_t next = feed.End();
  for (int i = 0; i < 50; ++i) {
    feed.Append("playout", {{"text", std::string(300, 'x')}});
  }
  std::size_t events = 0;
  for (auto chunk = feed.Read(next, 1000); !chunk.text.empty(); chunk = feed.Read(next, 1000)) {
    EXPECT_LE(chunk.text.size(), 1000U);
    events += Occurrences(chunk.text, "event: playout");
    next = chunk.next;
  }
  EXPECT_EQ(events, 50U);
}

TEST(EventFeed, IdsOfOthersBeginAnewBehindALoss) {
  EventFeed feed(kEpoch);
  for (int i = 0; i < 3; ++i) {
    feed.Append("playout", {{"number", i}});
  }
  const std::uint64_t end = feed.End();
  EXPECT_EQ(feed.After(""), end);
  EXPECT_EQ(feed.After("0"), end - 3);
  EXPECT_EQ(feed.After("7-" + std::to_string(end - 2)), end - 1);
  for (const std::string id : {"6-1", "7-", "7-x", "7--1", "x", "7-99"}) {
    const auto chunk = feed.Read(feed.After(id), 1000);
    EXPECT_EQ(Occurrences(chunk.text, "event: lost"), 1U) << id;
    EXPECT_EQ(chunk.next, end) << id;
  }
}

std::ptrdiff_t Descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Although its reply is kept, as by a thread that is slow to end: nobody else ends a session.
TEST(HttpServer, AConnectionEndsWithItsAnswer) {
  const auto server = HttpServer::Listen("127.0.0.1:0", {});
  ASSERT_TRUE(server);
  EventFeed feed(kEpoch);
  const Event stop;
  std::vector<HttpHooks::Reply> kept;
  HttpHooks hooks;
  hooks.check = [](const HttpRequest&) { return std::optional<HttpResponse>(); };
  hooks.handle = [&kept](HttpRequest, HttpHooks::Reply reply) {
    kept.push_back(reply);
    reply(HttpResponse());
  };
  hooks.each_second = [] {};
  const std::ptrdiff_t before = Descriptors();
  std::thread serving([&] { (*server)->Run(std::move(hooks), feed, stop.Get()); });
  {
    const std::string address = (*server)->Address();
    const std::size_t colon = address.rfind(':');
    boost::asio::ip::tcp::iostream client(address.substr(0, colon), address.substr(colon + 1));
    client << "GET / HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n" << std::flush;
    std::string line;
    std::getline(client, line);
    EXPECT_EQ(line, "HTTP/1.1 200 OK\r");
  }
  while (Descriptors() > before) {
    std::this_thread::yield();
  }
  stop.Set();
  serving.join();
  EXPECT_EQ(kept.size(), 1U);
}

TEST(Routes, AreThoseOfTheDocument) {
  const std::vector<Adapter> adapters;
  const auto media = MediaStore::Open({});
  EventFeed feed(kEpoch);
  PlayoutStore playouts(adapters, *media, feed);
  LineupStore lineups(playouts);
  MeterStore meters(feed);
  Thumbnails thumbnails;
  const Parts parts{adapters, *media, thumbnails, feed, playouts, lineups, meters, 0};
  std::set<std::string> routes;
  for (const Route& route : ApiRoutes(parts)) {
    EXPECT_TRUE(routes.insert(route.method + " " + route.path).second) << route.path;
  }
  std::ifstream file(OPENAPI_FILE);
  const Json document = Json::parse(file);
  std::set<std::string> described;
  for (const auto& [path, operations] : document["paths"].items()) {
    for (const auto& [method, operation] : operations.items()) {
      std::string upper = method;
      std::ranges::transform(upper, upper.begin(),
                             [](char c) { return static_cast<char>(c & ~0x20); });
      described.insert(upper + " " + path);
    }
  }
  EXPECT_EQ(routes, described);
}

}  // namespace
}  // namespace ipplay::serve
