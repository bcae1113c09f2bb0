// SPDX-License-Identifier: MIT
#include "host/base/line_server.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ipplay {
namespace {

constexpr int kType = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;

const sockaddr* Generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// Whether the path is a socket that nobody listens on any more.
bool IsLeftOver(const sockaddr_un& address) {
  struct stat status {};
  if (::lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) {
    return false;
  }
  const FileDescriptor probe(::socket(AF_UNIX, kType, 0));
  return ::connect(probe.Get(), Generic(address), sizeof address) != 0 && errno == ECONNREFUSED;
}

bool Watch(int poll, int fd) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP;
  event.data.fd = fd;
  return ::epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool SendLine(int fd, std::string line) {
  line += '\n';
  const ssize_t sent = ::send(fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(line.size());
}

// For its owner alone from the moment that it is there.
bool BindForOwner(int fd, const sockaddr_un& address) {
  const mode_t before = ::umask(0177);
  const bool bound = ::bind(fd, Generic(address), sizeof address) == 0;
  const int error = errno;
  ::umask(before);
  errno = error;
  return bound;
}

}  // namespace

Result<std::unique_ptr<LineServer>> LineServer::Listen(const std::string& option,
                                                       const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    return UsageFailure(
        fmt::format("{}: \"{}\" is too long or empty; give a path of up to {} bytes", option, path,
                    sizeof address.sun_path - 1));
  }
  std::memcpy(&address.sun_path[0], path.data(), path.size());
  if (IsLeftOver(address)) {
    ::unlink(path.c_str());
  }
  FileDescriptor listener(::socket(AF_UNIX, kType, 0));
  FileDescriptor poll(::epoll_create1(EPOLL_CLOEXEC));
  if (!BindForOwner(listener.Get(), address)) {
    return Failure{ExitStatus::kUsage,
                   fmt::format("{}: {}: {}", option, path,
                               errno == EADDRINUSE ? "something is there already; give another path"
                                                   : std::strerror(errno))};
  }
  std::unique_ptr<LineServer> server(new LineServer(path, std::move(listener), std::move(poll)));
  constexpr int kWaiting = 8;
  if (::listen(server->listener_.Get(), kWaiting) != 0 ||
      !Watch(server->poll_.Get(), server->listener_.Get())) {
    return Failure{ExitStatus::kFailed,
                   fmt::format("{}: {}: {}", option, path, std::strerror(errno))};
  }
  return server;
}

LineServer::LineServer(std::string path, FileDescriptor listener, FileDescriptor poll)
    : path_(std::move(path)), listener_(std::move(listener)), poll_(std::move(poll)) {}

LineServer::~LineServer() {
  ::unlink(path_.c_str());
}

void LineServer::Serve(const Answer& answer) {
  std::array<epoll_event, kMostClients + 1> events;
  const int ready = ::epoll_wait(poll_.Get(), events.data(), static_cast<int>(events.size()), 0);
  for (int i = 0; i < ready; ++i) {
    const int fd = events[static_cast<std::size_t>(i)].data.fd;
    if (fd == listener_.Get()) {
      TakeClient();
      continue;
    }
    const auto client = clients_.find(fd);
    if (client != clients_.end() && !ServeClient(client->second, answer)) {
      clients_.erase(client);  // closed, it is not watched any more
    }
  }
}

void LineServer::TakeClient() {
  FileDescriptor fd(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd.IsOpen()) {
    return;
  }
  if (clients_.size() >= kMostClients) {
    SendLine(fd.Get(), R"({"ok":false,"error":"too many clients; 8 can be connected"})");
    return;
  }
  const int number = fd.Get();
  if (Watch(poll_.Get(), number)) {
    clients_.emplace(number, Client{std::move(fd), {}});
  }
}

bool LineServer::ServeClient(Client& client, const Answer& answer) {
  std::array<char, kLongestLine> piece;
  const ssize_t got = ::recv(client.fd.Get(), piece.data(), piece.size(), MSG_DONTWAIT);
  if (got <= 0) {
    return got < 0 && (errno == EAGAIN || errno == EINTR);
  }
  client.received.append(piece.data(), static_cast<std::size_t>(got));
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = client.received.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    if (!SendLine(client.fd.Get(),
                  answer(std::string_view(client.received).substr(begin, end - begin)))) {
      return false;
    }
  }
  client.received.erase(0, begin);
  if (client.received.size() > kLongestLine) {
    SendLine(client.fd.Get(),
             R"({"ok":false,"error":"the line is too long; 4096 bytes are allowed"})");
    return false;
  }
  return true;
}

}  // namespace ipplay
