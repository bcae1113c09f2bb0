// SPDX-License-Identifier: MIT
// One connection: its requests one after another, or a stream of events.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "host/serve/event_feed.h"
#include "host/serve/http_hooks.h"

namespace ipplay::serve {

class HttpSession;

// What the sessions of a server share. On its thread alone.
struct HttpSessions {
  HttpLimits limits;
  HttpHooks hooks;
  EventFeed* feed = nullptr;
  std::size_t open = 0;
  std::list<HttpSession*> waiting;  // for their clients, the longest first
  std::list<HttpSession*> streams;  // of events
};

class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(boost::asio::ip::tcp::socket socket, HttpSessions& all);
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;
  ~HttpSession();

  void ReadHeader();
  // There are more events.
  void PumpEvents();
  void Close();

 private:
  using Error = boost::system::error_code;
  using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;

  void OnHeader(Error error);
  void ReadBody();
  void OnBody(Error error);
  void RefuseBroken(Error error);
  void Respond(HttpResponse response);
  void OnWritten(Error error);
  void Drain();
  void StartEvents(std::uint64_t from);
  void OnEventHeader(Error error);
  void WatchClient();
  void WaitForClient();
  void StopWaiting();

  boost::beast::tcp_stream stream_;
  HttpSessions& all_;
  boost::beast::flat_buffer buffer_;
  std::optional<Parser> parser_;
  HttpRequest request_;
  std::optional<boost::beast::http::response<boost::beast::http::string_body>> response_;
  std::optional<boost::beast::http::response<boost::beast::http::empty_body>> event_header_;
  std::optional<std::list<HttpSession*>::iterator> waiting_;    // in HttpSessions::waiting
  std::optional<std::list<HttpSession*>::iterator> streaming_;  // in HttpSessions::streams
  EventFeed::Chunk chunk_;
  bool writes_ = false;  // events
};

}  // namespace ipplay::serve
