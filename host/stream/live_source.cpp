// SPDX-License-Identifier: MIT
#include "host/stream/live_source.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "host/base/poll_until.h"
#include "host/base/stop_signals.h"
#include "host/base/units.h"

namespace ipplay {
namespace {

// What is received and not read yet.
constexpr std::size_t kMostBytesWaiting = std::size_t{64} << 20;

}  // namespace

bool IsLiveAddress(std::string_view text) {
  return text.starts_with("udp://") || text.starts_with("rtp://");
}

std::optional<LiveAddress> ParseLiveAddress(std::string_view text) {
  constexpr std::string_view kInterface = "?interface=";
  if (!IsLiveAddress(text)) {
    return std::nullopt;
  }
  LiveAddress address{.rtp = text.starts_with("rtp"), .from = {}, .interface = {}};
  text.remove_prefix(std::string_view("udp://").size());
  if (const std::size_t query = text.find('?'); query != std::string_view::npos) {
    if (!text.substr(query).starts_with(kInterface)) {
      return std::nullopt;
    }
    address.interface = text.substr(query + kInterface.size());
    if (address.interface.empty()) {
      return std::nullopt;
    }
    text = text.substr(0, query);
  }
  std::string endpoint(text);
  // "@:5000" is any address of this host.
  if (endpoint.starts_with("@:") || endpoint.starts_with(":")) {
    endpoint.insert(endpoint.find(':'), "0.0.0.0");
  }
  const auto from = ParseEndpoint(endpoint);
  if (!from || from->port == 0) {
    return std::nullopt;
  }
  address.from = *from;
  return address;
}

Result<std::unique_ptr<ByteSource>> LiveSource::Open(
    const LiveAddress& address, std::optional<std::chrono::nanoseconds> silence, int stop_fd) {
  auto socket = ReceiveSocket::Open(address.from, address.interface);
  if (!socket) {
    return socket.Error();
  }
  return std::unique_ptr<ByteSource>(
      new LiveSource(std::move(*socket), address.rtp, silence, stop_fd));
}

LiveSource::LiveSource(ReceiveSocket socket, bool rtp,
                       std::optional<std::chrono::nanoseconds> silence, int stop_fd)
    : socket_(std::move(socket)), silence_(silence), stop_fd_(stop_fd), stream_(rtp) {
  const StopSignals::HeldBack held_back;
  thread_ = std::thread(&LiveSource::Run, this);
}

LiveSource::~LiveSource() {
  close_.Set();
  thread_.join();
}

void LiveSource::Run() {
  bool started = false;
  while (WaitForDatagrams(started)) {
    started = true;
    Take();
  }
}

// False when there will be none any more; End() has said so then.
bool LiveSource::WaitForDatagrams(bool started) {
  std::array<pollfd, 3> waits{
      {{socket_.Get(), POLLIN, 0}, {stop_fd_, POLLIN, 0}, {close_.Get(), POLLIN, 0}}};
  std::optional<std::chrono::nanoseconds> end;
  if (silence_ && started) {
    const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
    end = now + std::min(*silence_, std::chrono::nanoseconds::max() - now);
  }
  const int count = PollUntil(waits, end);
  const bool stopped = waits[1].revents != 0 || waits[2].revents != 0;
  if (count > 0 && !stopped) {
    return true;
  }
  End(stopped);
  return false;
}

void LiveSource::Take() {
  const auto datagrams = socket_.Receive();
  const std::lock_guard lock(mutex_);
  dropped_ = socket_.Dropped();
  for (const ReceiveSocket::Datagram& datagram : datagrams) {
    if (stream_.BytesWaiting() > kMostBytesWaiting) {
      ++too_many_;
      continue;
    }
    stream_.Add(datagram.bytes, datagram.time_ns);
  }
  changed_.notify_one();
}

void LiveSource::End(bool stopped) {
  const std::lock_guard lock(mutex_);
  stream_.Flush();
  ended_ = true;
  stopped_ = stopped;
  changed_.notify_one();
}

void LiveSource::WaitForChange(std::unique_lock<std::mutex>& lock) {
  const auto due = Idle().Due();
  if (!due) {
    changed_.wait(lock);
    return;
  }
  const std::chrono::steady_clock::time_point until(*due);
  if (changed_.wait_until(lock, until) == std::cv_status::timeout) {
    lock.unlock();  // it may take a while
    Idle().run();
    lock.lock();
  }
}

std::size_t LiveSource::Read(std::span<std::uint8_t> buffer) {
  std::unique_lock lock(mutex_);
  while (!stream_.HasBytes() && !ended_) {
    WaitForChange(lock);
  }
  const std::size_t count = stopped_ ? 0 : stream_.Take(buffer);
  const auto arrivals = stream_.Arrivals();
  arrivals_.assign(arrivals.begin(), arrivals.end());
  return count;
}

bool LiveSource::IsStopped() const {
  const std::lock_guard lock(mutex_);
  return stopped_;
}

std::vector<std::string> LiveSource::Notes() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> notes = stream_.Notes();
  const auto note = [&notes](std::uint64_t count, std::string_view why) {
    if (count > 0) {
      notes.push_back(fmt::format("INPUT: datagrams lost {}: {}", why, FormatCount(count)));
    }
  };
  note(dropped_, "because the kernel had no room for them");
  note(too_many_, "because they came faster than they are played");
  return notes;
}

}  // namespace ipplay
