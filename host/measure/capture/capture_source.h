// SPDX-License-Identifier: MIT
// Where frames come from: an adapter, or a pcap or pcapng file, which may be a pipe or grow. Used
// by one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/base/result.h"
#include "host/measure/capture/captured_frame.h"
#include "host/measure/capture/growing_input.h"

struct bpf_program;
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

struct FileSettings {
  std::string path;     // - for standard input
  std::string filter;   // as above
  bool follow = false;  // the file grows
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
  static Result<CaptureSource> OpenFile(const FileSettings& settings);
  CaptureSource(CaptureSource&&) noexcept = default;
  CaptureSource& operator=(CaptureSource&&) noexcept = default;
  ~CaptureSource() = default;

  // Hands over what is there, a bounded number of frames at a time. Waits for some at most
  // `timeout_ms`; a signal ends the wait early.
  ReadStatus Read(FrameSink& sink, int timeout_ms);

  // Of a capture that grows: asked now and then while the rest of a frame is waited for.
  void WhileWaiting(std::function<bool()> go_on) {
    if (growing_ != nullptr) {
      growing_->WhileWaiting(std::move(go_on));
    }
  }

  // Frames come from an adapter.
  bool IsLive() const { return selectable_fd_ >= 0; }
  // More frames may come at any time.
  bool IsUnderWay() const { return IsLive() || growing_ != nullptr; }
  // Frames that were captured and not read yet are gone with the source; their number is unknown.
  CaptureDrops Drops();
  std::string Error() const;
  // The sink had no memory for a frame.
  bool OutOfMemory() const { return out_of_memory_; }

 private:
  enum class Kind { kAdapter, kFile, kGrowing };
  struct Closer {
    void operator()(pcap* handle) const;
  };
  struct FilterFreer {
    void operator()(bpf_program* filter) const;
  };
  using Handle = std::unique_ptr<pcap, Closer>;
  using Filter = std::unique_ptr<bpf_program, FilterFreer>;

  CaptureSource(Handle handle, LinkType link, int selectable_fd)
      : handle_(std::move(handle)), link_(link), selectable_fd_(selectable_fd) {}

  static Result<CaptureSource> Finish(Handle handle, const std::string& name,
                                      const std::string& filter, Kind kind);
  std::optional<Failure> SetFilter(const std::string& filter, Kind kind);
  ReadStatus WaitForAdapter(int timeout_ms);

  std::unique_ptr<GrowingInput> growing_;  // null for an adapter or a whole file
  Handle handle_;                          // reads from it, so it is closed first
  Filter filter_;
  LinkType link_;
  int selectable_fd_;
  bool out_of_memory_ = false;
};

}  // namespace ipplay::measure
