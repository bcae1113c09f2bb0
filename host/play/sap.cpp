// SPDX-License-Identifier: MIT
#include "host/play/sap.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "host/base/name_hash.h"

namespace ipplay {
namespace {

constexpr std::uint16_t kPort = 9875;
constexpr int kHops = 255;
constexpr std::uint8_t kVersion = 1 << 5;
constexpr std::uint8_t kIsV6 = 1 << 4;
constexpr std::uint8_t kIsDeletion = 1 << 2;
constexpr std::string_view kPayloadType{"application/sdp\0", 16};
constexpr std::size_t kLongestHeader = 4 + 16 + kPayloadType.size();

// Of the description: another one has another identifier. Never 0, which means none.
std::uint16_t MessageId(std::string_view sdp) {
  const std::uint64_t hash = HashOfName(sdp);
  const auto folded = static_cast<std::uint16_t>(hash ^ (hash >> 16) ^ (hash >> 32) ^ (hash >> 48));
  return folded == 0 ? 1 : folded;
}

std::string_view OriginLine(std::string_view sdp) {
  const std::size_t begin = sdp.find("o=");
  return sdp.substr(begin, sdp.find('\n', begin) + 1 - begin);
}

const IpAddress& GroupOf(const PlayOptions& options) {
  return options.dst_ip ? *options.dst_ip : options.to.address;
}

// Where streams to this group are announced: what is announced goes no further than the stream
// (section 3).
IpAddress SapGroup(const IpAddress& group) {
  if (group.is_v6) {
    const std::uint8_t scope = group.bytes[1] & 0x0F;
    return {true, {0xFF, scope, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0x7F, 0xFE}};
  }
  // The highest address of the zones of RFC 2365, and of 224.0.0.0/24, which no router passes on.
  if (group.bytes[0] == 239 && group.bytes[1] == 255) {
    return {false, {239, 255, 255, 255}};
  }
  if (group.bytes[0] == 239 && (group.bytes[1] & 0xFC) == 192) {
    return {false, {239, 195, 255, 255}};
  }
  if (group.bytes[0] == 224 && group.bytes[1] == 0 && group.bytes[2] == 0) {
    return {false, {224, 0, 0, 255}};
  }
  return {false, {224, 2, 127, 254}};
}

// What is sent: the description, or that it holds no longer (section 6).
std::vector<std::uint8_t> SapPacket(const IpAddress& source, std::string_view sdp, bool deletion) {
  const std::uint16_t id = MessageId(sdp);
  const std::uint8_t kind = (source.is_v6 ? kIsV6 : 0) | (deletion ? kIsDeletion : 0);
  std::vector<std::uint8_t> packet;
  packet.reserve(kLongestHeader + sdp.size());
  packet.push_back(kVersion | kind);
  packet.push_back(0);  // no authentication
  packet.push_back(static_cast<std::uint8_t>(id >> 8));
  packet.push_back(static_cast<std::uint8_t>(id));
  packet.insert(packet.end(), source.bytes.begin(), source.bytes.begin() + (source.is_v6 ? 16 : 4));
  std::ranges::copy(kPayloadType, std::back_inserter(packet));
  std::ranges::copy(deletion ? OriginLine(sdp) : sdp, std::back_inserter(packet));
  return packet;
}

}  // namespace

bool SapAnnouncer::IsFor(const PlayOptions& options) {
  return options.sap && options.to.rtp && options.into.empty() && GroupOf(options).IsMulticast();
}

Result<std::unique_ptr<SapAnnouncer>> SapAnnouncer::Open(const PlayOptions& options,
                                                         const Path& path, const std::string& sdp) {
  const IpAddress group = SapGroup(GroupOf(options));
  if (!path.source) {
    return Failure{ExitStatus::kNoAccess,
                   fmt::format("--sap: {} has no IPv{} address to announce from; give it one",
                               path.adapter.name, group.is_v6 ? 6 : 4)};
  }
  auto socket = GroupSocket::Open(path.adapter.name, *path.source, group, kPort, kHops);
  if (!socket) {
    return Failure{ExitStatus::kFailed,
                   fmt::format("--sap: cannot announce through {} from {}: {}", path.adapter.name,
                               FormatIp(*path.source), std::strerror(errno))};
  }
  return std::unique_ptr<SapAnnouncer>(
      new SapAnnouncer(*std::move(socket), group, *path.source, sdp, options.sap_interval));
}

SapAnnouncer::SapAnnouncer(GroupSocket socket, const IpAddress& group, const IpAddress& source,
                           const std::string& sdp, std::chrono::nanoseconds interval)
    : socket_(std::move(socket)),
      group_(group),
      interval_(interval),
      announcement_(SapPacket(source, sdp, false)),
      deletion_(SapPacket(source, sdp, true)) {}

SapAnnouncer::~SapAnnouncer() {
  if (announced_) {
    socket_.Send(deletion_);
  }
}

std::optional<std::string> SapAnnouncer::SendWhenDue(Clock::time_point now) {
  if (now < next_) {
    return std::nullopt;
  }
  // A third of the interval to either side (section 3.1), so that announcers do not keep step.
  std::uniform_real_distribution<double> share(2.0 / 3, 4.0 / 3);
  next_ = now + std::chrono::duration_cast<Clock::duration>(interval_ * share(random_));
  if (socket_.Send(announcement_)) {
    announced_ = true;
    return std::nullopt;
  }
  const int error = errno;
  if (std::exchange(complained_, true)) {
    return std::nullopt;
  }
  return fmt::format("the stream could not be announced: {}", std::strerror(error));
}

}  // namespace ipplay
