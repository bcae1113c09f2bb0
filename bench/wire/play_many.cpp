// SPDX-License-Identifier: MIT
// A host of many playouts with contents of their own, fed by one thread: RTP over IPv4, frames of
// 1,370 bytes, to 239.1.0.0:5004 and the groups behind it. Prints what the library says of the
// departures on standard error: "frames late not_sent worst_p99_us".
//
// usage: play_many DEVICE PLAYOUTS MEGABITS_PER_SECOND SECONDS [precise|economical] [stamps]
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "ipplayout/playouts.h"

namespace {

constexpr std::uint32_t kPacket = 188;
constexpr std::uint32_t kPayload = 7 * kPacket;
constexpr double kFrame = 1370;
constexpr std::int64_t kLead = 300'000'000;  // ns, to fill the rings
constexpr std::chrono::milliseconds kNap{20};

struct Options {
  const char* device = nullptr;
  unsigned playouts = 0;
  double megabits = 0;
  double seconds = 0;
  bool economical = false;
  bool stamps = false;
};

struct Channel {
  IpPlayout* playout = nullptr;
  std::uint64_t left = 0;    // bytes
  std::uint8_t content = 0;  // what its packets are full of
};

void Check(int result) {
  if (result != IPPLAYOUT_DONE) {
    std::fprintf(stderr, "%s\n", IpPlayoutError());
    std::exit(1);
  }
}

IpPlayoutSettings SettingsOf(const Options& options, unsigned number) {
  IpPlayoutSettings settings;
  IpPlayoutDefaults(&settings);
  std::snprintf(settings.Destination, sizeof settings.Destination, "%s", options.device);
  settings.BitRate = options.megabits;
  settings.Precision = options.economical ? IPPLAYOUT_ECONOMICAL : IPPLAYOUT_PRECISE;
  settings.Stamps = options.stamps ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  // Some 0.1 s of the stream: the thread below comes by five times in that.
  const double ahead = options.megabits * 1e6 / 8 * 0.1;
  settings.RingBytes = static_cast<std::uint32_t>(std::clamp(ahead, 65536.0, 1e8));
  settings.StartBytes = settings.RingBytes / 2;
  const auto high = static_cast<std::uint8_t>(number >> 8);
  const auto low = static_cast<std::uint8_t>(number);
  const std::array<std::uint8_t, 4> source{10, 77, 0, 1};
  const std::array<std::uint8_t, 4> group{239, 1, high, low};
  const std::array<std::uint8_t, 6> near{2, 0, 0, 0, 0, 1};
  const std::array<std::uint8_t, 6> group_mac{0x01, 0x00, 0x5E, 1, high, low};
  ProtocolHeadersSettings& headers = settings.Params.ProtocolHeadersSettings;
  std::copy(source.begin(), source.end(), headers.IPHeaderSettings.SourceIP);
  std::copy(group.begin(), group.end(), headers.IPHeaderSettings.DestinationIP);
  std::copy(near.begin(), near.end(), headers.EthernetHeaderSettings.SourceMacAddress);
  std::copy(group_mac.begin(), group_mac.end(),
            headers.EthernetHeaderSettings.DestinationMacAddress);
  headers.UDPHeaderSettings.SourcePort = 5004;
  headers.UDPHeaderSettings.DestinationPort = 5004;
  return settings;
}

std::vector<Channel> Open(const Options& options) {
  const double datagrams = options.seconds * options.megabits * 1e6 / 8 / kFrame;
  std::vector<Channel> channels(options.playouts);
  for (unsigned i = 0; i < options.playouts; ++i) {
    Channel& channel = channels[i];
    channel.playout = IpPlayoutOpen();
    const IpPlayoutSettings settings = SettingsOf(options, i);
    Check(IpPlayoutConfigure(channel.playout, &settings));
    channel.left = static_cast<std::uint64_t>(datagrams) * kPayload;
    channel.content = static_cast<std::uint8_t>(i);
  }
  return channels;
}

// Through a buffer of all channels, as a host reads their files. True when all of it was taken.
bool Feed(Channel& channel) {
  static std::array<std::uint8_t, std::size_t{kPayload} * 20> buffer;
  const std::size_t piece = std::min<std::uint64_t>(channel.left, buffer.size());
  const std::size_t packets_begin = channel.left % kPacket;
  std::fill_n(buffer.begin(), piece, channel.content);
  for (std::size_t at = packets_begin; at < piece; at += kPacket) {
    buffer[at] = 0x47;
  }
  std::size_t taken = 0;
  Check(IpPlayoutTryWrite(channel.playout, buffer.data(), piece, &taken));
  channel.left -= taken;
  if (channel.left == 0) {
    Check(IpPlayoutEnd(channel.playout));
  }
  return taken == piece;
}

void FeedAll(std::vector<Channel>& channels) {
  std::size_t open = channels.size();
  while (open > 0) {
    open = 0;
    for (Channel& channel : channels) {
      while (channel.left > 0 && Feed(channel)) {
      }
      open += channel.left > 0 ? 1 : 0;
    }
    std::this_thread::sleep_for(kNap);
  }
}

void ReportAll(const std::vector<Channel>& channels) {
  std::uint64_t frames = 0, late = 0, not_sent = 0;
  std::int64_t worst = 0;
  for (const Channel& channel : channels) {
    IpPlayoutTiming timing;
    Check(IpPlayoutGetTiming(channel.playout, &timing));
    frames += timing.OnTime + timing.Late;
    late += timing.Late;
    not_sent += timing.NotSent;
    worst = std::max(worst, timing.LatenessP99Ns);
  }
  std::fprintf(stderr, "%llu %llu %llu %.1f\n", static_cast<unsigned long long>(frames),
               static_cast<unsigned long long>(late), static_cast<unsigned long long>(not_sent),
               static_cast<double>(worst) / 1000);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr,
                 "usage: play_many DEVICE PLAYOUTS MEGABITS_PER_SECOND SECONDS "
                 "[precise|economical] [stamps]\n");
    return 2;
  }
  Options options;
  options.device = argv[1];
  options.playouts = static_cast<unsigned>(std::atoi(argv[2]));
  options.megabits = std::atof(argv[3]);
  options.seconds = std::atof(argv[4]);
  for (int i = 5; i < argc; ++i) {
    options.economical |= std::strcmp(argv[i], "economical") == 0;
    options.stamps |= std::strcmp(argv[i], "stamps") == 0;
  }
  std::vector<Channel> channels = Open(options);
  std::vector<IpPlayout*> playouts;
  for (const Channel& channel : channels) {
    playouts.push_back(channel.playout);
  }
  Check(IpPlayoutStart(playouts.data(), playouts.size(), IpPlayoutNow() + kLead));
  FeedAll(channels);
  for (IpPlayout* playout : playouts) {
    Check(IpPlayoutWait(playout, -1));
  }
  ReportAll(channels);
  return 0;
}
