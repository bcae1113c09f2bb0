// SPDX-License-Identifier: MIT
// Announcements of an RTP stream, so that players list it (SAP, RFC 2974).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "host/base/address.h"
#include "host/base/group_socket.h"
#include "host/base/result.h"
#include "host/library/path.h"
#include "host/play/play_options.h"

namespace ipplay {

// Announces one target at once, then every --sap-interval or so, until it is destroyed: then the
// announcement is withdrawn. Used by one thread.
class SapAnnouncer {
 public:
  using Clock = std::chrono::steady_clock;

  // Whether the options ask for it, and the target is one that can be announced.
  static bool IsFor(const PlayOptions& options);
  // `sdp` is the description of that target.
  static Result<std::unique_ptr<SapAnnouncer>> Open(const PlayOptions& options, const Path& path,
                                                    const std::string& sdp);

  SapAnnouncer(const SapAnnouncer&) = delete;
  SapAnnouncer& operator=(const SapAnnouncer&) = delete;
  ~SapAnnouncer();

  const IpAddress& Group() const { return group_; }
  Clock::time_point Next() const { return next_; }
  // Returns why it could not be sent, the first time.
  std::optional<std::string> SendWhenDue(Clock::time_point now);

 private:
  SapAnnouncer(GroupSocket socket, const IpAddress& group, const IpAddress& source,
               const std::string& sdp, std::chrono::nanoseconds interval);

  const GroupSocket socket_;
  const IpAddress group_;
  const std::chrono::nanoseconds interval_;
  const std::vector<std::uint8_t> announcement_, deletion_;
  std::minstd_rand random_{std::random_device()()};
  Clock::time_point next_{};  // at once
  bool announced_ = false;
  bool complained_ = false;
};

using SapAnnouncers = std::vector<std::unique_ptr<SapAnnouncer>>;

}  // namespace ipplay
