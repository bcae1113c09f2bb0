// SPDX-License-Identifier: MIT
#include "host/serve/http_session.h"

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/write.hpp>
#include <utility>

#include "host/serve/http_header.h"

namespace ipplay::serve {
namespace {

namespace http = boost::beast::http;

constexpr std::size_t kEventBytesAtOnce = std::size_t{256} << 10;
constexpr std::size_t kDrainedAtOnce = std::size_t{64} << 10;
constexpr auto kLinger = std::chrono::seconds(2);
constexpr unsigned kVersion11 = 11;

// Nothing of the page comes from elsewhere, and nothing else may show it or read it.
constexpr std::pair<const char*, const char*> kHeaders[] = {
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"}};
constexpr const char* kContentPolicy =
    "default-src 'self'; img-src 'self' blob:; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'; object-src 'none'";

template <typename Message>
void SetHeaders(const HttpResponse& response, Message& message) {
  message.result(static_cast<unsigned>(response.status));
  message.version(kVersion11);
  message.set("Content-Security-Policy", kContentPolicy);
  message.set("Cache-Control", "no-store");
  for (const auto& [name, value] : kHeaders) {
    message.set(name, value);
  }
  if (response.status != HttpStatus::kNoContent && response.status != HttpStatus::kNotModified) {
    message.set(http::field::content_type, response.content_type);
  }
  for (const auto& [name, value] : response.headers) {
    message.set(name, value);
  }
}

}  // namespace

HttpSession::HttpSession(boost::asio::ip::tcp::socket socket, HttpSessions& all)
    : stream_(std::move(socket)), all_(all) {
  ++all_.open;
}

HttpSession::~HttpSession() {
  StopWaiting();
  if (streaming_) {
    all_.streams.erase(*streaming_);
  }
  --all_.open;
}

void HttpSession::StopWaiting() {
  if (waiting_) {
    all_.waiting.erase(*waiting_);
    waiting_.reset();
  }
}

void HttpSession::Close() {
  StopWaiting();
  stream_.close();
}

void HttpSession::WaitForClient() {
  StopWaiting();
  waiting_ = all_.waiting.insert(all_.waiting.end(), this);
}

void HttpSession::ReadHeader() {
  WaitForClient();
  parser_.emplace();
  parser_->header_limit(all_.limits.header_bytes);
  parser_->body_limit(all_.limits.body_bytes);
  stream_.expires_after(all_.limits.header_time);
  http::async_read_header(
      stream_, buffer_, *parser_,
      [self = shared_from_this()](Error error, std::size_t /*bytes*/) { self->OnHeader(error); });
}

void HttpSession::OnHeader(Error error) {
  if (error) {
    RefuseBroken(error);
    return;
  }
  if (!TakeHeader(parser_->get(), request_)) {
    Respond(ErrorResponse(HttpStatus::kBadRequest, "the path is not valid"));
    return;
  }
  if (request_.has_unknown_length) {
    Respond(ErrorResponse(HttpStatus::kBadRequest,
                          "Transfer-Encoding: give chunked, or Content-Length instead"));
    return;
  }
  if (auto refusal = all_.hooks.check(request_)) {
    Respond(*std::move(refusal));
    return;
  }
  ReadBody();
}

void HttpSession::ReadBody() {
  stream_.expires_after(all_.limits.body_time);
  http::async_read(
      stream_, buffer_, *parser_,
      [self = shared_from_this()](Error error, std::size_t /*bytes*/) { self->OnBody(error); });
}

void HttpSession::OnBody(Error error) {
  if (error) {
    RefuseBroken(error);
    return;
  }
  StopWaiting();
  request_.body = std::move(parser_->get().body());
  stream_.expires_never();
  // It goes back with the answer, whoever keeps the reply: a session ends on the server's thread.
  auto held = std::make_shared<std::shared_ptr<HttpSession>>(shared_from_this());
  all_.hooks.handle(std::move(request_), [held = std::move(held)](HttpResponse response) {
    const auto executor = (*held)->stream_.get_executor();
    boost::asio::post(executor,
                      [self = std::move(*held), response = std::move(response)]() mutable {
                        self->Respond(std::move(response));
                      });
  });
}

// A connection that has ended, or took too long, gets no answer.
void HttpSession::RefuseBroken(Error error) {
  if (error == http::error::header_limit) {
    Respond(ErrorResponse(HttpStatus::kHeaderTooLarge, "the header is too large"));
  } else if (error == http::error::body_limit) {
    Respond(ErrorResponse(HttpStatus::kTooLarge, "the body is too large; give at most 1 MiB"));
  } else if (error.category() == http::make_error_code(http::error::bad_method).category() &&
             error != http::error::end_of_stream && error != http::error::partial_message) {
    Respond(ErrorResponse(HttpStatus::kBadRequest, "the request is not valid HTTP"));
  }
}

void HttpSession::Respond(HttpResponse response) {
  if (response.events_from) {
    StartEvents(*response.events_from);
    return;
  }
  WaitForClient();
  response_.emplace();
  SetHeaders(response, *response_);
  // What was not read of a request cannot be told from the next one.
  response_->keep_alive(parser_->is_done() && parser_->keep_alive() &&
                        !request_.has_unknown_length);
  response_->body() = std::move(response.body);
  if (response.status != HttpStatus::kNoContent && response.status != HttpStatus::kNotModified) {
    response_->prepare_payload();
  }
  stream_.expires_after(all_.limits.response_time);
  http::async_write(
      stream_, *response_,
      [self = shared_from_this()](Error error, std::size_t /*bytes*/) { self->OnWritten(error); });
}

void HttpSession::OnWritten(Error error) {
  const bool goes_on = !error && response_->keep_alive();
  response_.reset();
  if (goes_on) {
    ReadHeader();
  } else if (!error) {
    Error ignored;
    stream_.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
    stream_.expires_after(kLinger);
    Drain();
  }
}

// Closed with bytes that were not read, the kernel would take the response back.
void HttpSession::Drain() {
  buffer_.clear();
  stream_.async_read_some(buffer_.prepare(kDrainedAtOnce),
                          [self = shared_from_this()](Error error, std::size_t /*bytes*/) {
                            if (!error) {
                              self->Drain();
                            }
                          });
}

void HttpSession::StartEvents(std::uint64_t from) {
  if (all_.streams.size() >= all_.limits.event_streams) {
    Respond(ErrorResponse(HttpStatus::kTooMany, "too many streams of events are open"));
    return;
  }
  streaming_ = all_.streams.insert(all_.streams.end(), this);
  chunk_.next = from;
  writes_ = true;
  HttpResponse response;
  response.content_type = "text/event-stream";
  event_header_.emplace();
  SetHeaders(response, *event_header_);
  event_header_->keep_alive(false);
  stream_.expires_after(all_.limits.response_time);
  http::async_write(stream_, *event_header_,
                    [self = shared_from_this()](Error error, std::size_t /*bytes*/) {
                      self->OnEventHeader(error);
                    });
}

void HttpSession::OnEventHeader(Error error) {
  // The end of the header is no end of the message.
  writes_ = false;
  if (!error || error == http::error::end_of_stream) {
    stream_.expires_never();
    buffer_.clear();
    WatchClient();
    PumpEvents();
  }
}

// Nothing more comes from it but its end. This holds the session, too.
void HttpSession::WatchClient() {
  stream_.async_read_some(buffer_.prepare(kDrainedAtOnce),
                          [self = shared_from_this()](Error error, std::size_t /*bytes*/) {
                            if (!error) {
                              self->WatchClient();
                            } else {
                              self->Close();
                            }
                          });
}

void HttpSession::PumpEvents() {
  if (writes_) {
    return;
  }
  chunk_ = all_.feed->Read(chunk_.next, kEventBytesAtOnce);
  if (chunk_.text.empty()) {
    return;
  }
  writes_ = true;
  stream_.expires_after(all_.limits.response_time);
  boost::asio::async_write(stream_, boost::asio::buffer(chunk_.text),
                           [self = shared_from_this()](Error error, std::size_t /*bytes*/) {
                             self->writes_ = false;
                             if (!error) {
                               self->PumpEvents();
                             } else {
                               self->Close();
                             }
                           });
}

}  // namespace ipplay::serve
