// SPDX-License-Identifier: MIT
#include "host/stream/capture_file.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <unordered_map>

#include "host/base/readable_file.h"
#include "host/base/units.h"
#include "host/measure/capture/capture_source.h"
#include "host/measure/figures/rtp_header.h"
#include "host/stream/packet_format.h"

namespace ipplay {
namespace {

using measure::CaptureSource;
using measure::DecodedFrame;
using measure::FlowKey;
using measure::FrameClass;
using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kMostFlows = 10'000;
constexpr std::size_t kMostFlowsNamed = 20;

Failure OpenFailure(const Failure& failure) {
  constexpr std::string_view kOther = "SOURCE: ";
  const std::string& message = failure.message;
  return UsageFailure("INPUT: " +
                      (message.starts_with(kOther) ? message.substr(kOther.size()) : message));
}

// At the head of a datagram, or behind its RTP header; a time-stamped packet has four bytes before.
bool StartsWithPacket(Bytes payload) {
  return !payload.empty() &&
         (payload[0] == kSyncByte || (payload.size() % 192 == 0 && payload[4] == kSyncByte));
}

class FlowList : public measure::FrameSink {
 public:
  void Add(measure::LinkType link, const measure::CapturedFrame& frame) override {
    DecodedFrame decoded;
    if (DecodeFrame(link, frame.data, false, decoded) != FrameClass::kUdp ||
        decoded.payload.empty() ||
        (flows_.size() >= kMostFlows && !flows_.contains(decoded.flow))) {
      return;
    }
    Seen& seen = flows_[decoded.flow];
    ++seen.datagrams;
    seen.guess.Add(decoded.payload, decoded.payload_length);
    const auto rtp = measure::ParseRtpHeader(decoded.payload, decoded.payload_length);
    seen.plain_packets += StartsWithPacket(decoded.payload) ? 1U : 0U;
    seen.rtp_packets +=
        rtp && StartsWithPacket(decoded.payload.subspan(rtp->header_length)) ? 1U : 0U;
  }
  bool IsComplete() const override { return false; }

  // Those with the most datagrams first.
  std::vector<CaptureFlow> Flows() const {
    std::vector<CaptureFlow> flows;
    for (const auto& [key, seen] : flows_) {
      const bool rtp = seen.guess.IsRtp();
      flows.push_back({key, seen.datagrams, rtp,
                       2 * (rtp ? seen.rtp_packets : seen.plain_packets) > seen.datagrams});
    }
    std::sort(flows.begin(), flows.end(), [](const CaptureFlow& a, const CaptureFlow& b) {
      return a.datagrams != b.datagrams ? a.datagrams > b.datagrams
                                        : DestinationText(a.key) < DestinationText(b.key);
    });
    return flows;
  }

 private:
  struct Seen {
    std::uint64_t datagrams = 0;
    std::uint64_t plain_packets = 0;
    std::uint64_t rtp_packets = 0;
    RtpGuess guess;
  };
  std::unordered_map<FlowKey, Seen, measure::FlowKeyHash> flows_;
};

bool IsAddress(const IpAddress& wanted, std::uint64_t version,
               const std::array<std::uint8_t, 16>& bytes) {
  return wanted.is_v6 == (version == 6) && wanted.bytes == bytes;
}

bool IsChosen(const Endpoint& choice, const FlowKey& key) {
  return choice.port == key.destination_port &&
         IsAddress(choice.address, key.ip_version, key.destination) &&
         (!choice.source || IsAddress(*choice.source, key.ip_version, key.source));
}

std::string FlowText(const CaptureFlow& flow) {
  const std::string vlan = VlanText(flow.key);
  return fmt::format("  {}  {}  {} from {}{}{}", DestinationText(flow.key),
                     flow.is_rtp ? "RTP" : "UDP", FormatCount(flow.datagrams, "packet"),
                     SourceText(flow.key), vlan.empty() ? "" : ", VLAN " + vlan,
                     flow.has_packets ? "" : ", without transport packets");
}

Failure ManyFlows(const std::string& path, std::string_view what,
                  const std::vector<CaptureFlow>& flows) {
  Failure failure = UsageFailure(
      fmt::format("INPUT: {} {}; give one of them as --flow [SOURCE@]ADDRESS:PORT:", path, what));
  for (std::size_t i = 0; i < std::min(flows.size(), kMostFlowsNamed); ++i) {
    failure.details.push_back(FlowText(flows[i]));
  }
  if (flows.size() > kMostFlowsNamed) {
    failure.details.push_back(
        fmt::format("  and {} more", FormatCount(flows.size() - kMostFlowsNamed)));
  }
  return failure;
}

Result<CaptureFlow> Choose(const std::string& path, const std::vector<CaptureFlow>& flows,
                           const std::optional<Endpoint>& choice, bool raw) {
  std::vector<CaptureFlow> fit;
  std::copy_if(flows.begin(), flows.end(), std::back_inserter(fit), [&](const CaptureFlow& flow) {
    return choice ? IsChosen(*choice, flow.key) : raw || flow.has_packets;
  });
  if (flows.empty()) {
    return UsageFailure(fmt::format("INPUT: {} holds no UDP datagrams", path));
  }
  if (choice && fit.empty()) {
    return ManyFlows(path, "does not hold the flow of --flow", flows);
  }
  if (fit.empty() && flows.size() == 1) {
    return flows.front();
  }
  if (fit.empty() || (!choice && fit.size() > 1)) {
    return ManyFlows(path, fmt::format("holds {} flows", flows.size()), flows);
  }
  return fit.front();
}

}  // namespace

bool IsCapture(const std::string& path) {
  using Magic = std::array<std::uint8_t, 4>;
  // pcap with microseconds or nanoseconds in either byte order, and pcapng.
  constexpr std::array kMagics{Magic{0xA1, 0xB2, 0xC3, 0xD4}, Magic{0xD4, 0xC3, 0xB2, 0xA1},
                               Magic{0xA1, 0xB2, 0x3C, 0x4D}, Magic{0x4D, 0x3C, 0xB2, 0xA1},
                               Magic{0x0A, 0x0D, 0x0D, 0x0A}};
  // A FIFO can be opened only once.
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    return false;
  }
  const ReadableFile file = OpenForReading(path);
  Magic magic{};
  return file.size && ::read(file.fd.Get(), magic.data(), magic.size()) == 4 &&
         std::find(kMagics.begin(), kMagics.end(), magic) != kMagics.end();
}

// The frames of the flow, on their way into the stream.
class CaptureFile::Frames : public measure::FrameSink {
 public:
  Frames(CaptureSource source, const FlowKey& key, DatagramStream& stream)
      : source_(std::move(source)), key_(key), stream_(stream) {}

  // False at the end of the capture.
  bool Read() { return source_.Read(*this, 0) == CaptureSource::ReadStatus::kFrames; }

  void Add(measure::LinkType link, const measure::CapturedFrame& frame) override {
    DecodedFrame decoded;
    const FrameClass found = DecodeFrame(link, frame.data, false, decoded);
    fragments_ += found == FrameClass::kFragment ? 1U : 0U;
    if (found != FrameClass::kUdp || decoded.flow != key_) {
      return;
    }
    if (!decoded.IsComplete()) {
      ++in_part_;
      return;
    }
    stream_.Add(decoded.payload, frame.time_ns);
  }
  bool IsComplete() const override { return false; }

  std::vector<std::string> Notes() const {
    std::vector<std::string> notes = stream_.Notes();
    if (in_part_ > 0) {
      notes.push_back(
          fmt::format("INPUT: datagrams that were captured in part and are left out: {}",
                      FormatCount(in_part_)));
    }
    if (fragments_ > 0) {
      notes.push_back(
          fmt::format("INPUT: fragments of IP packets, of any flow, that are left out: {}",
                      FormatCount(fragments_)));
    }
    if (const std::string error = source_.Error(); !error.empty()) {
      notes.push_back("INPUT: the capture is read up to where it is damaged: " + error);
    }
    return notes;
  }

 private:
  CaptureSource source_;
  FlowKey key_;
  DatagramStream& stream_;
  std::uint64_t in_part_ = 0;
  std::uint64_t fragments_ = 0;
};

Result<std::unique_ptr<ByteSource>> CaptureFile::Open(const std::string& path,
                                                      const std::optional<Endpoint>& choice,
                                                      bool raw, int stop_fd) {
  auto source = CaptureSource::OpenFile({.path = path, .filter = {}});
  if (!source) {
    return OpenFailure(source.Error());
  }
  FlowList list;
  while (source->Read(list, 0) == CaptureSource::ReadStatus::kFrames) {
  }
  const auto flow = Choose(path, list.Flows(), choice, raw);
  if (!flow) {
    return flow.Error();
  }
  std::unique_ptr<CaptureFile> file(new CaptureFile(path, *flow, stop_fd));
  file->Measure();
  if (file->error_ != 0) {
    return UsageFailure(
        fmt::format("INPUT: cannot read {}: {}", path, std::strerror(file->error_)));
  }
  return std::unique_ptr<ByteSource>(std::move(file));
}

CaptureFile::CaptureFile(std::string path, const CaptureFlow& flow, int stop_fd)
    : path_(std::move(path)), flow_(flow), stop_fd_(stop_fd) {
  Restart();
}

CaptureFile::~CaptureFile() = default;

bool CaptureFile::Restart() {
  offset_ = 0;
  stream_ = std::make_unique<DatagramStream>(flow_.is_rtp);
  auto source = CaptureSource::OpenFile({.path = path_, .filter = {}});
  if (!source) {
    error_ = EIO;
    return false;
  }
  frames_ = std::make_unique<Frames>(std::move(*source), flow_.key, *stream_);
  return true;
}

// How long the stream is, and what is wrong with it.
void CaptureFile::Measure() {
  std::array<std::uint8_t, 65536> bytes;
  while (Read(bytes) > 0) {
  }
  size_ = offset_;
  datagrams_ = stream_->Facts();
  if (frames_ != nullptr) {
    notes_ = frames_->Notes();
  }
  Restart();
}

// False at the end of the capture.
bool CaptureFile::ReadFrames() {
  if (frames_ == nullptr) {
    return false;
  }
  if (frames_->Read()) {
    return true;
  }
  stream_->Flush();
  return stream_->HasBytes();
}

std::size_t CaptureFile::Read(std::span<std::uint8_t> buffer) {
  while (!stream_->HasBytes()) {
    pollfd stop{stop_fd_, POLLIN, 0};
    stopped_ = ::poll(&stop, 1, 0) > 0;
    if (stopped_ || !ReadFrames()) {
      return 0;
    }
  }
  const std::size_t count = stream_->Take(buffer);
  offset_ += count;
  return count;
}

void CaptureFile::Seek(std::uint64_t offset) {
  if (offset < offset_ && !Restart()) {
    return;
  }
  std::array<std::uint8_t, 65536> bytes;
  while (offset_ < offset) {
    if (Read(std::span(bytes).first(std::min<std::uint64_t>(bytes.size(), offset - offset_))) ==
        0) {
      return;
    }
  }
}

}  // namespace ipplay
