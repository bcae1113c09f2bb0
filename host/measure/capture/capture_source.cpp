// SPDX-License-Identifier: MIT
#include "host/measure/capture/capture_source.h"

#include <fmt/format.h>
#include <pcap/pcap.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstring>

#include "host/base/capabilities.h"

namespace ipplay::measure {
namespace {

// The kernel hands a block of frames over when it is full or this old.
constexpr int kBlockTimeoutMs = 20;
// After so many frames the caller gets to look at the clock.
constexpr int kFramesAtOnce = 8192;

struct Target {
  FrameSink* sink;
  LinkType link;
};

void OnFrame(u_char* user, const pcap_pkthdr* header, const u_char* bytes) {
  const Target& target = *reinterpret_cast<const Target*>(user);
  // With nanosecond precision the second field counts nanoseconds.
  const std::int64_t time_ns =
      std::int64_t{header->ts.tv_sec} * 1'000'000'000 + std::int64_t{header->ts.tv_usec};
  target.sink->Add(target.link, {time_ns, {{bytes, header->caplen}, header->len}});
}

std::optional<LinkType> LinkTypeOf(int dlt) {
  switch (dlt) {
    case DLT_EN10MB:
      return LinkType::kEthernet;
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
      return LinkType::kRawIp;
    case DLT_LINUX_SLL:
      return LinkType::kLinuxCooked;
    case DLT_LINUX_SLL2:
      return LinkType::kLinuxCooked2;
    default:
      return std::nullopt;
  }
}

Failure ActivationFailure(const std::string& device, int code, pcap_t* handle) {
  const std::string detail = ::pcap_geterr(handle);
  switch (code) {
    case PCAP_ERROR_NO_SUCH_DEVICE:
      return {ExitStatus::kNoAccess, fmt::format("SOURCE: there is no adapter or file {}", device)};
    case PCAP_ERROR_PERM_DENIED:
    case PCAP_ERROR_PROMISC_PERM_DENIED:
      return {ExitStatus::kNoAccess, fmt::format("no permission to capture on {}: {}", device,
                                                 HowToGetRights("cap_net_raw"))};
    case PCAP_ERROR_IFACE_NOT_UP:
      return {ExitStatus::kNoAccess, fmt::format("device {} is down", device)};
    default:
      return {ExitStatus::kFailed, fmt::format("cannot capture on {}: {}", device,
                                               detail.empty() ? ::pcap_statustostr(code) : detail)};
  }
}

}  // namespace

void CaptureSource::Closer::operator()(pcap* handle) const {
  ::pcap_close(handle);
}

Result<CaptureSource> CaptureSource::OpenLive(const LiveSettings& settings) {
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  Handle handle(::pcap_create(settings.device.c_str(), error.data()));
  if (handle == nullptr) {
    return Failure{ExitStatus::kFailed, error.data()};
  }
  pcap_t* const pcap = handle.get();
  ::pcap_set_snaplen(pcap, settings.snapshot_bytes);
  ::pcap_set_promisc(pcap, settings.promiscuous ? 1 : 0);
  ::pcap_set_timeout(pcap, kBlockTimeoutMs);
  ::pcap_set_buffer_size(pcap,
                         static_cast<int>(std::min<std::uint64_t>(settings.buffer_bytes, INT_MAX)));
  ::pcap_set_tstamp_precision(pcap, PCAP_TSTAMP_PRECISION_NANO);
  if (settings.adapter_time_stamps && ::pcap_set_tstamp_type(pcap, PCAP_TSTAMP_ADAPTER) != 0) {
    return UsageFailure(fmt::format("--adapter-timestamps: {} has none; allowed are the kernel's",
                                    settings.device));
  }
  if (const int code = ::pcap_activate(pcap); code < 0) {
    return ActivationFailure(settings.device, code, pcap);
  }
  const pcap_direction_t direction = settings.direction == Direction::kIn    ? PCAP_D_IN
                                     : settings.direction == Direction::kOut ? PCAP_D_OUT
                                                                             : PCAP_D_INOUT;
  if (settings.direction != Direction::kBoth && ::pcap_setdirection(pcap, direction) != 0) {
    return Failure{ExitStatus::kFailed, ::pcap_geterr(pcap)};
  }
  // A blocking read would not return before there is a frame.
  if (::pcap_setnonblock(pcap, 1, error.data()) != 0) {
    return Failure{ExitStatus::kFailed, error.data()};
  }
  return Finish(std::move(handle), settings.device, settings.filter, true);
}

Result<CaptureSource> CaptureSource::OpenFile(const std::string& path, const std::string& filter) {
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  Handle handle(::pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO,
                                                          error.data()));
  if (handle == nullptr) {
    // libpcap names the file in some of its messages only.
    const std::string why = error.data();
    const bool named = why.find(path) != std::string::npos;
    return UsageFailure("SOURCE: " + (named ? why : fmt::format("{}: {}", path, why)));
  }
  return Finish(std::move(handle), path, filter, false);
}

std::optional<Failure> CaptureSource::SetFilter(pcap* handle, const std::string& filter) {
  if (filter.empty()) {
    return std::nullopt;
  }
  bpf_program program{};
  if (::pcap_compile(handle, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    return UsageFailure(
        fmt::format("--filter: {}; allowed is what pcap-filter(7) says", ::pcap_geterr(handle)));
  }
  const int result = ::pcap_setfilter(handle, &program);
  ::pcap_freecode(&program);
  if (result != 0) {
    return Failure{ExitStatus::kFailed, ::pcap_geterr(handle)};
  }
  return std::nullopt;
}

Result<CaptureSource> CaptureSource::Finish(Handle handle, const std::string& name,
                                            const std::string& filter, bool live) {
  const int dlt = ::pcap_datalink(handle.get());
  const auto link = LinkTypeOf(dlt);
  if (!link) {
    const char* type = ::pcap_datalink_val_to_name(dlt);
    return UsageFailure(fmt::format("SOURCE: {} has frames of a kind that cannot be read: {}", name,
                                    type == nullptr ? "unknown" : type));
  }
  if (auto failure = SetFilter(handle.get(), filter)) {
    return *failure;
  }
  const int fd = live ? ::pcap_get_selectable_fd(handle.get()) : -1;
  return CaptureSource(std::move(handle), *link, fd);
}

CaptureSource::ReadStatus CaptureSource::Read(FrameSink& sink, int timeout_ms) {
  Target target{&sink, link_};
  const int frames =
      ::pcap_dispatch(handle_.get(), kFramesAtOnce, OnFrame, reinterpret_cast<u_char*>(&target));
  if (frames > 0) {
    return ReadStatus::kFrames;
  }
  if (frames < 0) {
    return ReadStatus::kFailed;
  }
  if (!IsLive()) {
    return ReadStatus::kEnd;
  }
  pollfd waiting{selectable_fd_, POLLIN, 0};
  const int ready = ::poll(&waiting, 1, timeout_ms);
  if (ready > 0 && (waiting.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0 &&
      (waiting.revents & POLLIN) == 0) {
    // Reading again fetches the error, if it lasts.
    return ::pcap_dispatch(handle_.get(), 1, OnFrame, reinterpret_cast<u_char*>(&target)) < 0
               ? ReadStatus::kFailed
               : ReadStatus::kNothingYet;
  }
  return ReadStatus::kNothingYet;
}

CaptureDrops CaptureSource::Drops() {
  pcap_stat stat{};
  if (!IsLive() || ::pcap_stats(handle_.get(), &stat) != 0) {
    return {};
  }
  return {stat.ps_drop, stat.ps_ifdrop};
}

std::string CaptureSource::Error() const {
  return ::pcap_geterr(handle_.get());
}

}  // namespace ipplay::measure
