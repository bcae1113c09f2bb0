// SPDX-License-Identifier: MIT
// A stream that comes in by UDP or RTP, as an input. A thread of its own receives, so that nothing
// is lost while nobody reads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/base/address.h"
#include "host/base/event.h"
#include "host/base/receive_socket.h"
#include "host/base/result.h"
#include "host/stream/datagram_stream.h"

namespace ipplay {

// "rtp://239.1.1.1:5004", "udp://10.0.0.1@232.1.1.1:5000?interface=eth1", "udp://@:5000".
struct LiveAddress {
  bool rtp = false;
  Endpoint from;
  std::string interface;  // empty: as the system routes
};

// Whether an input is named as a live one, in a right way or a wrong one.
bool IsLiveAddress(std::string_view text);
std::optional<LiveAddress> ParseLiveAddress(std::string_view text);

class LiveSource : public ByteSource {
 public:
  // Ends after `silence` without a datagram, once the first has come; nothing for never.
  static Result<std::unique_ptr<ByteSource>> Open(const LiveAddress& address,
                                                  std::optional<std::chrono::nanoseconds> silence,
                                                  int stop_fd);
  ~LiveSource() override;

  std::size_t Read(std::span<std::uint8_t> buffer) override;
  std::span<const Arrival> Arrivals() const override { return arrivals_; }
  bool IsLive() const override { return true; }
  bool IsStopped() const override;
  std::vector<std::string> Notes() const override;

 private:
  LiveSource(ReceiveSocket socket, bool rtp, std::optional<std::chrono::nanoseconds> silence,
             int stop_fd);
  void Run();
  bool WaitForDatagrams(bool started);
  void Take();
  void End(bool stopped);
  void WaitForChange(std::unique_lock<std::mutex>& lock);

  ReceiveSocket socket_;  // of the thread, but for the number of dropped datagrams
  std::optional<std::chrono::nanoseconds> silence_;
  int stop_fd_;
  Event close_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  DatagramStream stream_;       // guarded by mutex_
  std::uint64_t too_many_ = 0;  // datagrams that nobody read in time; guarded by mutex_
  std::uint64_t dropped_ = 0;   // by the kernel; guarded by mutex_
  bool ended_ = false;          // guarded by mutex_
  bool stopped_ = false;        // guarded by mutex_

  std::vector<Arrival> arrivals_;  // of the reader
  std::thread thread_;
};

}  // namespace ipplay
