// SPDX-License-Identifier: MIT
// Announcements of an RTP stream, so that players list it (SAP, RFC 2974).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/address.h"
#include "host/base/group_socket.h"
#include "host/base/result.h"
#include "host/library/path.h"
#include "host/play/play_options.h"

namespace ipplay {

// Where streams to this group are announced: what is announced goes no further than the stream
// (section 3).
IpAddress SapGroup(const IpAddress& group);

// What is sent: the description, or with `deletion` that it holds no longer (section 6).
std::vector<std::uint8_t> SapPacket(const IpAddress& source, std::string_view sdp, bool deletion);

// Announces one target at once, then every --sap-interval or so, until it is destroyed: then the
// announcement is withdrawn. Used by one thread.
class SapAnnouncer {
 public:
  using Clock = std::chrono::steady_clock;

  // Whether the options ask for it, and the target is one that can be announced.
  static bool IsFor(const PlayOptions& options);
  // `sdp` is the description of that target.
  static Result<SapAnnouncer> Open(const PlayOptions& options, const Path& path,
                                   const std::string& sdp);

  SapAnnouncer(SapAnnouncer&&) = default;
  SapAnnouncer& operator=(SapAnnouncer&&) = delete;
  ~SapAnnouncer();

  const IpAddress& Group() const { return group_; }
  Clock::time_point Next() const { return next_; }
  // Returns why it could not be sent, the first time.
  std::optional<std::string> SendWhenDue(Clock::time_point now);

 private:
  SapAnnouncer(GroupSocket socket, const IpAddress& group, std::chrono::nanoseconds interval);

  GroupSocket socket_;
  IpAddress group_;
  std::chrono::nanoseconds interval_;
  std::vector<std::uint8_t> announcement_, deletion_;
  std::minstd_rand random_{std::random_device()()};
  Clock::time_point next_ = Clock::now();
  bool announced_ = false;
  bool complained_ = false;
};

}  // namespace ipplay
