// SPDX-License-Identifier: MIT
#include "host/measure/capture/capture_source.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "host/base/capabilities.h"
#include "host/base/stop_signals.h"

namespace ipplay::measure {
namespace {

// The kernel hands a block of frames over when it is full or this old.
constexpr int kBlockTimeoutMs = 20;
// After this many frames the caller gets to look at the clock.
constexpr int kFramesAtOnce = 8192;

// Times are from 1970 to 2116; what a file says beyond that is taken for the nearest of them.
constexpr std::int64_t kMostSeconds = (std::int64_t{1} << 62) / 1'000'000'000;

struct Target {
  FrameSink* sink;
  LinkType link;
  pcap_t* handle;
  bpf_program* filter;  // null where the handle filters
  bool was_stopping;
  std::uint64_t frames = 0;
  bool out_of_memory = false;
};

// A pcap file has 32 bits without a sign, which libpcap takes for a number with one.
std::int64_t SecondsOf(std::int64_t seconds) {
  const bool is_wrapped = seconds < 0 && seconds >= INT32_MIN;
  return is_wrapped ? seconds + (std::int64_t{1} << 32) : seconds;
}

std::int64_t TimeOf(const timeval& stamp) {
  // With nanosecond precision the second field counts nanoseconds.
  const std::int64_t seconds = std::clamp<std::int64_t>(SecondsOf(stamp.tv_sec), 0, kMostSeconds);
  return seconds * 1'000'000'000 + std::clamp<std::int64_t>(stamp.tv_usec, 0, 999'999'999);
}

void OnFrame(u_char* user, const pcap_pkthdr* header, const u_char* bytes) {
  Target& target = *reinterpret_cast<Target*>(user);
  ++target.frames;
  if (target.filter != nullptr && ::pcap_offline_filter(target.filter, header, bytes) == 0) {
    return;
  }
  try {
    target.sink->Add(target.link, {TimeOf(header->ts), {{bytes, header->caplen}, header->len}});
  } catch (const std::bad_alloc&) {  // must not go through libpcap
    target.out_of_memory = true;
  }
  if (target.out_of_memory || target.sink->IsComplete() ||
      (!target.was_stopping && StopSignals::Came() != 0)) {
    ::pcap_breakloop(target.handle);
  }
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
      return {ExitStatus::kNoAccess,
              fmt::format(
                  "SOURCE: there is no adapter or file {}; \"ipplay devices\" lists the adapters",
                  device)};
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

void CaptureSource::FilterFreer::operator()(bpf_program* filter) const {
  ::pcap_freecode(filter);
  delete filter;
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
    return UsageFailure(fmt::format(
        "--adapter-timestamps: {} has none; leave it out to take the kernel's", settings.device));
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
  return Finish(std::move(handle), settings.device, settings.filter, Kind::kAdapter);
}

Result<CaptureSource> CaptureSource::OpenFile(const FileSettings& settings) {
  const std::string& path = settings.path;
  FileDescriptor fd(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                                : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!fd.IsOpen() || ::fstat(fd.Get(), &status) != 0) {
    return UsageFailure(fmt::format("SOURCE: {}: {}", path, std::strerror(errno)));
  }
  const bool is_pipe = S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode);
  std::unique_ptr<GrowingInput> growing;
  std::FILE* file = nullptr;
  if (is_pipe || settings.follow) {
    growing = std::make_unique<GrowingInput>(
        std::move(fd), is_pipe ? GrowingInput::Kind::kPipe : GrowingInput::Kind::kFile);
    file = growing->OpenFile();
  } else {
    file = ::fdopen(fd.Release(), "r");
  }
  if (file == nullptr) {
    return Failure{ExitStatus::kFailed, fmt::format("{}: {}", path, std::strerror(errno))};
  }
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  Handle handle(
      ::pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, error.data()));
  if (handle == nullptr) {
    std::fclose(file);
    return UsageFailure(fmt::format("SOURCE: {}: {}", path, error.data()));
  }
  auto source = Finish(std::move(handle), path, settings.filter,
                       growing == nullptr ? Kind::kFile : Kind::kGrowing);
  if (source) {
    source->growing_ = std::move(growing);
  }
  return source;
}

Result<CaptureSource> CaptureSource::Finish(Handle handle, const std::string& name,
                                            const std::string& filter, Kind kind) {
  const int dlt = ::pcap_datalink(handle.get());
  const auto link = LinkTypeOf(dlt);
  if (!link) {
    const char* type = ::pcap_datalink_val_to_name(dlt);
    return UsageFailure(fmt::format("SOURCE: {} has frames of a kind that cannot be read: {}", name,
                                    type == nullptr ? "unknown" : type));
  }
  const int fd = kind == Kind::kAdapter ? ::pcap_get_selectable_fd(handle.get()) : -1;
  CaptureSource source(std::move(handle), *link, fd);
  if (auto failure = source.SetFilter(filter, kind)) {
    return *failure;
  }
  return source;
}

// On a capture that grows, libpcap would go on until a frame passes.
std::optional<Failure> CaptureSource::SetFilter(const std::string& filter, Kind kind) {
  if (filter.empty()) {
    return std::nullopt;
  }
  Filter program(new bpf_program{});
  if (::pcap_compile(handle_.get(), program.get(), filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    return UsageFailure(fmt::format("--filter: {}; give an expression as in pcap-filter(7)",
                                    ::pcap_geterr(handle_.get())));
  }
  if (kind == Kind::kGrowing) {
    filter_ = std::move(program);
  } else if (::pcap_setfilter(handle_.get(), program.get()) != 0) {
    return Failure{ExitStatus::kFailed, ::pcap_geterr(handle_.get())};
  }
  return std::nullopt;
}

CaptureSource::ReadStatus CaptureSource::Read(FrameSink& sink, int timeout_ms) {
  Target target{&sink, link_, handle_.get(), filter_.get(), StopSignals::Came() != 0};
  const auto dispatch = [&](int count) {
    return ::pcap_dispatch(handle_.get(), count, OnFrame, reinterpret_cast<u_char*>(&target));
  };
  if (growing_ != nullptr && !growing_->Wait(timeout_ms)) {
    return ReadStatus::kNothingYet;
  }
  int result = 0;
  do {
    result = dispatch(growing_ == nullptr ? kFramesAtOnce : 1);
  } while (growing_ != nullptr && result > 0 && growing_->HasBytes() &&
           target.frames < kFramesAtOnce);
  if (target.out_of_memory) {
    out_of_memory_ = true;
    return ReadStatus::kFailed;
  }
  if (result > 0 || result == PCAP_ERROR_BREAK) {
    return ReadStatus::kFrames;
  }
  if (result < 0) {
    return growing_ != nullptr && growing_->WasGivenUp() ? ReadStatus::kEnd : ReadStatus::kFailed;
  }
  return IsLive() ? WaitForAdapter(timeout_ms) : ReadStatus::kEnd;
}

CaptureSource::ReadStatus CaptureSource::WaitForAdapter(int timeout_ms) {
  std::array<pollfd, 2> waits{{{selectable_fd_, POLLIN, 0}, {StopSignals::Fd(), POLLIN, 0}}};
  // Reading again fetches the error, if there is one.
  return ::poll(waits.data(), timeout_ms == 0 ? 1 : 2, timeout_ms) < 0 && errno != EINTR
             ? ReadStatus::kFailed
             : ReadStatus::kNothingYet;
}

CaptureDrops CaptureSource::Drops() {
  pcap_stat stat{};
  if (!IsLive() || ::pcap_stats(handle_.get(), &stat) != 0) {
    return {};
  }
  return {stat.ps_drop, stat.ps_ifdrop};
}

std::string CaptureSource::Error() const {
  return out_of_memory_
             ? "no memory left for what has arrived; these are the sums of the frames before"
             : ::pcap_geterr(handle_.get());
}

}  // namespace ipplay::measure
