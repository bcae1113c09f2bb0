// SPDX-License-Identifier: MIT
// Hostile captures for the measuring end, from the file's first byte to every view of the result: a
// file as it stands, or hostile frames with any time stamps in a pcap or pcapng file that is in
// order; as a file, or through a pipe.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/file_descriptor.h"
#include "host/measure/capture/capture_source.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/hostile_frames.h"

using namespace ipplay::measure;
using namespace ipplay::measure::fuzz;

namespace {

// Frames that stand far apart cost more than those of a stream.
constexpr std::size_t kMostFrames = 64;
// A pipe holds so much without a reader.
constexpr std::size_t kMostBytes = 64 << 10;
// In time. Each costs an hour of seconds without a frame, and those more than all the rest.
constexpr int kMostLeaps = 64;
constexpr int kMostLeapsWithSeconds = 2;
constexpr std::array<std::uint32_t, 6> kLinkTypes{1, 101, 113, 276, 228, 229};

void Put16(Bytes& file, std::uint32_t value) {
  file.push_back(static_cast<std::uint8_t>(value));
  file.push_back(static_cast<std::uint8_t>(value >> 8));
}

void Put32(Bytes& file, std::uint32_t value) {
  Put16(file, value);
  Put16(file, value >> 16);
}

// The times of a file's frames: after the one before as in a stream, or any at all.
class Times {
 public:
  Times(std::uint64_t first, std::uint64_t a_millisecond, int leaps)
      : time_(first), a_millisecond_(a_millisecond), leaps_(leaps) {}

  std::uint64_t Next(FuzzInput& input) {
    const std::uint32_t kind = input.Number(1);
    if (kind % 8 == 0 && leaps_ > 0) {
      --leaps_;
      time_ = input.Number<std::uint64_t>(8);
      return time_;
    }
    const std::uint64_t step = input.Number<std::uint64_t>(2) * a_millisecond_ / 1000;
    time_ = kind % 8 == 1 ? time_ - step * 1000 : time_ + (step << (kind / 8 % 8));
    return time_;
  }

 private:
  std::uint64_t time_;
  std::uint64_t a_millisecond_;
  int leaps_;  // that are left
};

Bytes Pcap(FuzzInput& input, bool nanoseconds, int leaps) {
  Bytes file;
  Put32(file, nanoseconds ? 0xA1B23C4D : 0xA1B2C3D4);
  const std::uint32_t link = kLinkTypes[input.Number(1) % kLinkTypes.size()];
  for (const std::uint32_t word : {0x00040002U, 0U, 0U, 65535U, link}) {
    Put32(file, word);
  }
  const std::uint64_t a_second = nanoseconds ? 1'000'000'000 : 1'000'000;
  Times times(input.Number<std::uint64_t>(4) * a_second, a_second / 1000, leaps);
  for (std::size_t i = 0; i < kMostFrames && !input.IsEmpty(); ++i) {
    const std::uint64_t time = times.Next(input);
    const Frame frame = NextFrame(input);
    Put32(file, static_cast<std::uint32_t>(time / a_second));
    Put32(file, static_cast<std::uint32_t>(time % a_second));
    Put32(file, static_cast<std::uint32_t>(frame.bytes.size()));
    Put32(file, static_cast<std::uint32_t>(frame.wire_length));
    Append(file, frame.bytes);
  }
  return file;
}

void PutBlock(Bytes& file, std::uint32_t type, const Bytes& body) {
  const auto length = static_cast<std::uint32_t>(12 + (body.size() + 3) / 4 * 4);
  Put32(file, type);
  Put32(file, length);
  Append(file, body);
  file.resize(file.size() + length - 12 - body.size());
  Put32(file, length);
}

// Two interfaces of one link type, each with a resolution and an offset of the fuzzer's.
Bytes PcapNg(FuzzInput& input, int leaps) {
  constexpr std::uint32_t kSection = 0x0A0D0D0A, kInterface = 1, kPacket = 6;
  constexpr std::uint32_t kResolution = 9, kOffset = 14;
  Bytes file;
  Bytes body;
  for (const std::uint32_t word : {0x1A2B3C4DU, 1U, UINT32_MAX, UINT32_MAX}) {
    Put32(body, word);
  }
  PutBlock(file, kSection, body);
  const std::uint32_t link = kLinkTypes[input.Number(1) % kLinkTypes.size()];
  for (int i = 0; i < 2; ++i) {
    body.clear();
    Put32(body, link);
    Put32(body, 65535);
    Put32(body, kResolution | 1U << 16);
    Put32(body, input.Number(1));
    Put32(body, kOffset | 8U << 16);
    Put32(body, input.Number(4));
    Put32(body, input.Number(4));
    Put32(body, 0);
    PutBlock(file, kInterface, body);
  }
  Times times(input.Number<std::uint64_t>(8), 1000, leaps);
  for (std::size_t i = 0; i < kMostFrames && !input.IsEmpty(); ++i) {
    const std::uint64_t time = times.Next(input);
    body.clear();
    Put32(body, input.Number(1) % 2);
    Put32(body, static_cast<std::uint32_t>(time >> 32));
    Put32(body, static_cast<std::uint32_t>(time));
    const Frame frame = NextFrame(input);
    Put32(body, static_cast<std::uint32_t>(frame.bytes.size()));
    Put32(body, static_cast<std::uint32_t>(frame.wire_length));
    Append(body, frame.bytes);
    PutBlock(file, kPacket, body);
  }
  return file;
}

Bytes FileBy(FuzzInput& input, int leaps) {
  switch (input.Number(1) % 4) {
    case 0:
      return Pcap(input, false, leaps);
    case 1:
      return Pcap(input, true, leaps);
    case 2:
      return PcapNg(input, leaps);
    default: {
      const auto rest = input.Take(SIZE_MAX);
      return {rest.begin(), rest.end()};
    }
  }
}

void WriteAll(int fd, const Bytes& bytes) {
  if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    std::abort();
  }
}

// What the file holds is behind the descriptor.
ipplay::FileDescriptor Provide(const Bytes& bytes, bool as_pipe) {
  if (!as_pipe) {
    ipplay::FileDescriptor file(::memfd_create("capture", MFD_CLOEXEC));
    WriteAll(file.Get(), bytes);
    return file;
  }
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    std::abort();
  }
  const ipplay::FileDescriptor writer(ends[1]);
  WriteAll(writer.Get(), bytes);
  return ipplay::FileDescriptor(ends[0]);
}

// The sums over all seconds are the totals.
class SecondSums : public SecondSink {
 public:
  void Add(const StreamSecond& second) override {
    if (second.length_ns < 0 || second.start_ns < 0 || second.longest_gap_ns < 0) {
      std::abort();
    }
    StreamSecond& sum = sums_.at(second.stream);
    sum.frames += second.frames;
    sum.frame_bytes += second.frame_bytes;
    sum.payload_bytes += second.payload_bytes;
    sum.duplicates += second.duplicates;
    sum.errors += second.errors;
    sum.continuity_errors += second.continuity_errors;
    sum.bad_checksums += second.bad_checksums;
    sum.lost = sum.lost.value_or(0) + second.lost.value_or(0);
  }

  void Compare(const Measurement& measurement) const {
    const Summary summary = Summarize(measurement, "fuzz", false, {});
    for (std::size_t i = 0; i < summary.streams.size(); ++i) {
      const StreamSummary& stream = summary.streams[i];
      const StreamSecond& sum = sums_.at(i);
      const std::uint64_t lost = stream.rtp  ? stream.rtp->lost
                                 : stream.ts ? stream.ts->counters.missing_packets
                                             : 0;
      const std::uint64_t duplicates =
          stream.rtp ? stream.rtp->duplicates : stream.repeated_datagrams;
      if (sum.frames != stream.rate.frames || sum.frame_bytes != stream.rate.frame_bytes ||
          sum.payload_bytes != stream.rate.payload_bytes || sum.duplicates != duplicates ||
          sum.errors != (stream.ts ? stream.ts->errors : 0) ||
          sum.bad_checksums != stream.checksums.bad_ip + stream.checksums.bad_udp ||
          sum.lost.value_or(0) != static_cast<std::int64_t>(lost)) {
        std::abort();
      }
    }
  }

 private:
  std::array<StreamSecond, 8> sums_{};
};

// False for a file that is refused.
bool Measure(int fd, Measurement& measurement) {
  auto source = CaptureSource::OpenFile({"/proc/self/fd/" + std::to_string(fd), "", false});
  if (!source) {
    return false;
  }
  CaptureSource::ReadStatus status{};
  do {
    status = source->Read(measurement, 0);
  } while (status == CaptureSource::ReadStatus::kFrames);
  measurement.Finish();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Seconds cost ten times as much as the frames, and views a hundred times. What an input chose
  // would be so for all that come of it, and most of them soon come of those that cover the views.
  const std::size_t draw =
      std::hash<std::string_view>()({reinterpret_cast<const char*>(data), size});
  const bool with_seconds = draw % 32 == 0;
  const bool with_views = draw % 256 == 0;
  FuzzInput input({data, size});
  const std::uint32_t choice = input.Number(1);
  const bool as_pipe = input.Number(1) % 4 == 0;
  const Bytes bytes = FileBy(input, with_seconds ? kMostLeapsWithSeconds : kMostLeaps);
  if (bytes.size() > kMostBytes) {
    return 0;
  }
  const ipplay::FileDescriptor fd = Provide(bytes, as_pipe);
  Measurement measurement(SettingsBy(choice));
  SecondSums seconds;
  if (with_seconds) {
    measurement.ReportSecondsTo(&seconds);
  }
  if (!Measure(fd.Get(), measurement)) {
    return 0;
  }
  CheckSums(measurement);
  if (with_seconds) {
    seconds.Compare(measurement);
  }
  if (with_views) {
    ShowAll(measurement);
  }
  return 0;
}
