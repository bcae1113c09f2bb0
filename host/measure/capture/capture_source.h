// SPDX-License-Identifier: MIT
// Where frames come from: an adapter, or a pcap or pcapng file. Used by one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/measure/capture/captured_frame.h"

struct pcap;

namespace ipplay::measure {

enum class Direction { kBoth, kIn, kOut };

struct LiveSettings {
  std::string device;
  std::uint64_t buffer_bytes = 0;
  int snapshot_bytes = 0;  // of each frame
  bool promiscuous = true;
  Direction direction = Direction::kBoth;
  bool adapter_time_stamps = false;  // instead of the kernel's
  std::string filter;                // in the syntax of pcap-filter(7); empty for all frames
};

// What the capture itself lost.
struct CaptureDrops {
  std::uint64_t by_kernel = 0;   // no room in the buffer
  std::uint64_t by_adapter = 0;  // before they got that far, where the driver says so
};

class CaptureSource {
 public:
  enum class ReadStatus { kFrames, kNothingYet, kEnd, kFailed };

  static Result<CaptureSource> OpenLive(const LiveSettings& settings);
  static Result<CaptureSource> OpenFile(const std::string& path, const std::string& filter);
  CaptureSource(CaptureSource&&) noexcept = default;
  CaptureSource& operator=(CaptureSource&&) noexcept = default;
  ~CaptureSource() = default;

  // Hands over what is there, a bounded number of frames at a time. Waits for some at most
  // `timeout_ms`; a signal ends the wait early.
  ReadStatus Read(FrameSink& sink, int timeout_ms);

  bool IsLive() const { return selectable_fd_ >= 0; }
  // Frames that were captured and not read yet are gone with the source; their number is unknown.
  CaptureDrops Drops();
  std::string Error() const;

 private:
  struct Closer {
    void operator()(pcap* handle) const;
  };
  using Handle = std::unique_ptr<pcap, Closer>;

  CaptureSource(Handle handle, LinkType link, int selectable_fd)
      : handle_(std::move(handle)), link_(link), selectable_fd_(selectable_fd) {}

  static std::optional<Failure> SetFilter(pcap* handle, const std::string& filter);
  static Result<CaptureSource> Finish(Handle handle, const std::string& name,
                                      const std::string& filter, bool live);

  Handle handle_;
  LinkType link_;
  int selectable_fd_;
};

}  // namespace ipplay::measure
