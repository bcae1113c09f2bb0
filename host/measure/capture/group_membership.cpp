// SPDX-License-Identifier: MIT
#include "host/measure/capture/group_membership.h"

#include <fmt/format.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "host/base/socket_option.h"

namespace ipplay::measure {
namespace {

// 0, or the errno of what failed.
int JoinOn(const FileDescriptor& socket, unsigned adapter_index, const GroupSource& group) {
  const bool joined = JoinGroup(socket.Get(), adapter_index, group.group, group.source);
  return joined ? 0 : errno;
}

}  // namespace

std::optional<GroupSource> ParseGroupSource(std::string_view text) {
  const std::size_t at = text.find('@');
  const auto group = ParseIp(text.substr(0, at));
  if (!group || !group->IsMulticast()) {
    return std::nullopt;
  }
  if (at == std::string_view::npos) {
    return GroupSource{*group};
  }
  const auto source = ParseIp(text.substr(at + 1));
  if (!source || source->is_v6 != group->is_v6 || source->IsMulticast() ||
      source->IsLimitedBroadcast() || source->bytes == IpAddress{}.bytes) {
    return std::nullopt;
  }
  return GroupSource{*group, source};
}

std::string FormatGroupSource(const GroupSource& group) {
  return FormatIp(group.group) + (group.source ? "@" + FormatIp(*group.source) : "");
}

// A socket takes some groups only (net.ipv4.igmp_max_memberships, 20 by default) and some sources
// of one group (igmp_max_msf, mld_max_msf), nor a group both from all senders and from one. What
// one socket does not take, the next one may.
int GroupMembership::JoinOne(Sockets& sockets, unsigned adapter_index, const GroupSource& group) {
  if (!sockets.empty() && JoinOn(sockets.back(), adapter_index, group) == 0) {
    return 0;
  }
  FileDescriptor next(
      ::socket(group.group.is_v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!next.IsOpen()) {
    return errno;
  }
  const int error = JoinOn(next, adapter_index, group);
  if (error == 0) {
    sockets.push_back(std::move(next));
  }
  return error;
}

// A group that is not joined would look like one that nobody sends to.
std::optional<Failure> GroupMembership::Join(const std::string& adapter,
                                             std::span<const GroupSource> groups) {
  constexpr std::size_t kMostNamed = 20;
  const unsigned index = ::if_nametoindex(adapter.c_str());
  if (index == 0 && !groups.empty()) {
    return UsageFailure(
        fmt::format("--join: allowed with a single adapter only, and {} is none", adapter));
  }
  std::size_t refused = 0;
  std::string names;
  for (const GroupSource& group : groups) {
    const int error = JoinOne(group.group.is_v6 ? sockets6_ : sockets4_, index, group);
    if (error != 0 && refused++ < kMostNamed) {
      names += fmt::format("{}{} ({})", names.empty() ? "" : ", ", FormatGroupSource(group),
                           std::strerror(error));
    }
  }
  if (refused == 0) {
    return std::nullopt;
  }
  return Failure{ExitStatus::kFailed,
                 fmt::format("{} cannot join {} of {} groups: {}{}", adapter, refused,
                             groups.size(), names, refused > kMostNamed ? ", ..." : "")};
}

}  // namespace ipplay::measure
