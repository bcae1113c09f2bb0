// SPDX-License-Identifier: MIT
#include "host/play/sdp.h"

#include <fmt/format.h>

#include <filesystem>

#include "host/base/output_file.h"
#include "host/base/text.h"
#include "host/base/wall_clock.h"

namespace ipplay {
namespace {

constexpr std::int64_t kNtpEpoch = 2'208'988'800;  // seconds from 1900 to 1970
constexpr std::uint32_t kPayloadTypes = 0x7F;      // without the marker bit

std::string_view Version(const IpAddress& address) {
  return address.is_v6 ? "IP6" : "IP4";
}

// RFC 8866, 5.7: IPv4 groups have their TTL behind them.
std::string Connection(const PlayOptions& options, const IpAddress& destination) {
  const bool has_ttl = destination.IsMulticast() && !destination.is_v6;
  return fmt::format("c=IN {} {}{}\r\n", Version(destination), FormatIp(destination),
                     has_ttl ? fmt::format("/{}", options.ttl) : "");
}

}  // namespace

std::string SdpText(const PlayOptions& options, const Path& path) {
  const IpAddress destination = options.dst_ip.value_or(options.to.address);
  const auto source = options.src_ip ? options.src_ip : path.source;
  const IpAddress origin = source.value_or(destination);
  const std::uint32_t payload_type = options.payload_type & kPayloadTypes;
  const std::string name = QuotedLine(std::filesystem::path(options.input).filename().string());
  std::string text = "v=0\r\n";
  text +=
      fmt::format("o=- {0} {0} IN {1} {2}\r\n", WallClockNow().count() / 1'000'000'000 + kNtpEpoch,
                  Version(origin), FormatIp(origin));
  text += fmt::format("s={}\r\n", name.empty() ? "ipplay" : name);
  text += Connection(options, destination);
  text += "t=0 0\r\n";
  // RFC 4570.
  if (destination.IsMulticast() && source) {
    text += fmt::format("a=source-filter: incl IN {} {} {}\r\n", Version(destination),
                        FormatIp(destination), FormatIp(*source));
  }
  text += fmt::format("m=video {} RTP/AVP {}\r\n", options.dst_port.value_or(options.to.port),
                      payload_type);
  // RFC 3551, 5, and RFC 2250.
  return text + fmt::format("a=rtpmap:{} MP2T/90000\r\n", payload_type);
}

std::optional<Failure> WriteSdp(const PlayOptions& options, const std::string& text) {
  if (options.sdp.empty()) {
    return std::nullopt;
  }
  const auto file = OutputFile::Create("--sdp", options.sdp, "v=0");
  if (!file) {
    return file.Error();
  }
  return file->Commit(text);
}

}  // namespace ipplay
