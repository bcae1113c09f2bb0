// SPDX-License-Identifier: MIT
#include "host/serve/http_server.h"

#include <fmt/format.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <utility>
#include <vector>

#include "host/base/address.h"
#include "host/base/numbers.h"
#include "host/serve/http_session.h"

namespace ipplay::serve {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr auto kAfterFailedAccept = std::chrono::milliseconds(100);

class BeastServer : public HttpServer {
 public:
  explicit BeastServer(const HttpLimits& limits) { all_.limits = limits; }

  error_code Open(const ListenAddress& at) {
    error_code error;
    const tcp::endpoint endpoint(asio::ip::make_address(at.address, error), at.port);
    const auto step = [&error](const auto& call) {
      if (!error) {
        call();
      }
    };
    step([&] { acceptor_.open(endpoint.protocol(), error); });
    step([&] { acceptor_.set_option(tcp::acceptor::reuse_address(true), error); });
    step([&] { acceptor_.bind(endpoint, error); });
    step([&] { acceptor_.listen(asio::socket_base::max_listen_connections, error); });
    return error;
  }

  std::string Address() const override {
    error_code error;
    const tcp::endpoint endpoint = acceptor_.local_endpoint(error);
    const std::string address = endpoint.address().to_string(error);
    return endpoint.address().is_v6() ? fmt::format("[{}]:{}", address, endpoint.port())
                                      : fmt::format("{}:{}", address, endpoint.port());
  }

  void Run(HttpHooks hooks, EventFeed& feed, int stop_fd) override {
    all_.hooks = std::move(hooks);
    all_.feed = &feed;
    feed.OnAppend([this] { PostPump(); });
    asio::posix::stream_descriptor stop(io_, stop_fd);
    stop.async_wait(asio::posix::stream_descriptor::wait_read,
                    [this](error_code /*error*/) { io_.stop(); });
    next_second_ = std::chrono::steady_clock::now();
    WaitForSecond();
    Accept();
    io_.run();
    stop.release();
    feed.OnAppend({});
  }

 private:
  void Accept() {
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
      if (error) {
        // Mostly for lack of descriptors, which others give back.
        retry_.expires_after(kAfterFailedAccept);
        retry_.async_wait([this](error_code /*error*/) { Accept(); });
        return;
      }
      Welcome(std::move(socket));
      Accept();
    });
  }

  // Who waits with a request, or for the rest of it, or takes no response, keeps nobody out.
  void Welcome(tcp::socket socket) {
    if (all_.open >= all_.limits.connections) {
      if (all_.waiting.empty()) {
        return;
      }
      all_.waiting.front()->Close();
    }
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    std::make_shared<HttpSession>(std::move(socket), all_)->ReadHeader();
  }

  void WaitForSecond() {
    next_second_ += std::chrono::seconds(1);
    second_.expires_at(next_second_);
    second_.async_wait([this](error_code /*error*/) {
      all_.hooks.each_second();
      WaitForSecond();
    });
  }

  // Many events at once are one turn.
  void PostPump() {
    if (!is_posted_.exchange(true)) {
      asio::post(io_, [this] {
        is_posted_.store(false);
        const std::vector<HttpSession*> streams(all_.streams.begin(), all_.streams.end());
        for (HttpSession* const session : streams) {
          session->PumpEvents();
        }
      });
    }
  }

  HttpSessions all_;  // outlives the sessions, which are in the handlers of io_
  asio::io_context io_{1};
  tcp::acceptor acceptor_{io_};
  asio::steady_timer second_{io_};
  asio::steady_timer retry_{io_};
  std::chrono::steady_clock::time_point next_second_;
  std::atomic<bool> is_posted_{false};
};

}  // namespace

std::optional<ListenAddress> ParseListenAddress(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    return std::nullopt;
  }
  std::string address = text.substr(0, colon);
  const bool has_brackets = address.starts_with('[') && address.ends_with(']');
  if (has_brackets) {
    address = address.substr(1, address.size() - 2);
  }
  const auto ip = ParseIp(address);
  const auto port = ParseNumber(text.substr(colon + 1), 0, UINT16_MAX);
  if (!ip || ip->is_v6 != has_brackets || !port) {
    return std::nullopt;
  }
  return ListenAddress{address, static_cast<std::uint16_t>(*port), ip->IsLoopback()};
}

Result<std::unique_ptr<HttpServer>> HttpServer::Listen(const std::string& address,
                                                       const HttpLimits& limits) {
  const auto at = ParseListenAddress(address);
  if (!at) {
    return UsageFailure(fmt::format(
        "--listen: \"{}\" is not valid; give ADDRESS:PORT, as 127.0.0.1:8080 or [::1]:8080",
        address));
  }
  auto server = std::make_unique<BeastServer>(limits);
  if (const error_code error = server->Open(*at)) {
    return Failure{ExitStatus::kNoAccess, fmt::format("--listen {}: {}", address, error.message())};
  }
  return std::unique_ptr<HttpServer>(std::move(server));
}

}  // namespace ipplay::serve
