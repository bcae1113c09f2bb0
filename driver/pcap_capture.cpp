// SPDX-License-Identifier: MIT
#include "driver/pcap_capture.h"

#include <fcntl.h>
#include <pcap.h>

#include <utility>

#include "platform/clock.h"
#include "platform/descriptor.h"

namespace ipplayout {
namespace {

// After this time the kernel hands over a block that is not full. It is not what bounds a read.
constexpr int kBlockTimeoutMs = 1;

// What the empty filter compiles to. The compiler ends the process when it finds no memory, so a
// playout does without it.
constexpr bpf_insn kAcceptAll{BPF_RET | BPF_K, 0, 0, 0x40000};

class FilterProgram {
 public:
  FilterProgram() = default;
  FilterProgram(const FilterProgram&) = delete;
  FilterProgram& operator=(const FilterProgram&) = delete;
  ~FilterProgram() { ::pcap_freecode(&program_); }

  bpf_program* Get() { return &program_; }

 private:
  bpf_program program_{};
};

}  // namespace

void PcapCapture::Close::operator()(pcap* capture) const {
  ::pcap_close(capture);
}

PcapCapture::PcapCapture(Capture capture, std::chrono::milliseconds read_timeout)
    : capture_(std::move(capture)),
      descriptor_(::pcap_fileno(capture_.get())),
      read_timeout_(read_timeout) {}

std::unique_ptr<PcapCapture> PcapCapture::Open(const std::string& interface,
                                               const OpenOptions& options) {
  const platform::StandardNumbersTaken taken;  // libpcap makes its socket itself
  char error[PCAP_ERRBUF_SIZE];
  Capture capture(::pcap_create(interface.c_str(), error));
  if (capture == nullptr) {
    return nullptr;
  }
  ::pcap_set_snaplen(capture.get(), options.snapshot_length);
  ::pcap_set_promisc(capture.get(), options.promiscuous ? 1 : 0);
  ::pcap_set_timeout(capture.get(), kBlockTimeoutMs);
  ::pcap_set_immediate_mode(capture.get(), options.immediate ? 1 : 0);
  if (options.buffer_bytes > 0) {
    ::pcap_set_buffer_size(capture.get(), options.buffer_bytes);
  }
  // Positive results are warnings.
  if (::pcap_activate(capture.get()) < 0 || ::pcap_setnonblock(capture.get(), 1, error) != 0) {
    return nullptr;
  }
  std::unique_ptr<PcapCapture> opened(new PcapCapture(std::move(capture), options.read_timeout));
  ::fcntl(opened->descriptor_, F_SETFD, FD_CLOEXEC);
  return opened;
}

FilterResult PcapCapture::SetFilter(const char* text, std::uint32_t netmask) {
  if (*text == '\0') {
    bpf_insn instruction = kAcceptAll;
    bpf_program program{1, &instruction};
    return Install(program);
  }
  FilterProgram program;
  if (const int code = ::pcap_compile(capture_.get(), program.Get(), text, 1, netmask); code < 0) {
    return {FilterResult::Stage::kCompile, code};
  }
  return Install(*program.Get());
}

FilterResult PcapCapture::Install(bpf_program& program) {
  const int code = ::pcap_setfilter(capture_.get(), &program);
  return code < 0 ? FilterResult{FilterResult::Stage::kSet, code} : FilterResult{};
}

std::optional<CapturedFrame> PcapCapture::NextFrame() {
  // libpcap's own read timeout does not bound a read on Linux, so reads never block and the wait
  // is ours.
  const auto deadline = platform::MonotonicNow() + read_timeout_;
  for (;;) {
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = ::pcap_next_ex(capture_.get(), &header, &bytes);
    if (result == 1) {
      return CapturedFrame{header->ts.tv_sec, header->ts.tv_usec, {bytes, header->caplen}};
    }
    if (result < 0 || platform::MonotonicNow() >= deadline) {
      return std::nullopt;
    }
    platform::WaitUntilReadable(descriptor_, deadline);
  }
}

}  // namespace ipplayout
