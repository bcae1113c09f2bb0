// SPDX-License-Identifier: MIT
// Multicast groups that an adapter is a member of for as long as this lives. The kernel sends the
// reports, IGMP (RFC 3376) or MLD (RFC 3810) of the version that the network speaks, and leaves the
// groups whatever ends the process.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/address.h"
#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay::measure {

struct GroupSource {
  IpAddress group;
  std::optional<IpAddress> source{};  // the only sender that is wanted; all without one

  bool operator==(const GroupSource&) const = default;
};

// "239.1.1.1", "232.1.1.1@10.0.0.1", "ff3e::8000:1@fd00::1".
std::optional<GroupSource> ParseGroupSource(std::string_view text);
std::string FormatGroupSource(const GroupSource& group);

class GroupMembership {
 public:
  // Joins all of them on the adapter; the failure names those that it cannot join.
  std::optional<Failure> Join(const std::string& adapter, std::span<const GroupSource> groups);

 private:
  using Sockets = std::vector<FileDescriptor>;

  static int JoinOne(Sockets& sockets, unsigned adapter_index, const GroupSource& group);

  Sockets sockets4_;
  Sockets sockets6_;
};

}  // namespace ipplay::measure
