// SPDX-License-Identifier: MIT
// Frames that are hostile from the first byte on, or only from a deeper layer on, and what must
// hold of a measurement whatever has come.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "host/measure/figures/measurement.h"
#include "host/measure/results/json_view.h"
#include "host/measure/results/report_html.h"
#include "host/measure/results/table_view.h"
#include "tests/fuzz/fuzz_input.h"

namespace ipplay::measure::fuzz {

using Bytes = std::vector<std::uint8_t>;

inline void Append(Bytes& bytes, std::span<const std::uint8_t> more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

inline Bytes Datagram(std::span<const std::uint8_t> payload, std::uint8_t flow) {
  Bytes frame{1, 0, 0x5E, 1, 1, 1,  2, 0, 0, 0,   0, 1, 8,    0,    0x45, 0,    0,    0, 0, 0, 0,
              0, 1, 17,   0, 0, 10, 0, 0, 1, 239, 1, 1, flow, 0x13, 0x88, 0x13, 0x8C, 0, 0, 0, 0};
  const std::size_t udp_length = 8 + payload.size();
  frame[16] = static_cast<std::uint8_t>((20 + udp_length) >> 8);
  frame[17] = static_cast<std::uint8_t>(20 + udp_length);
  frame[38] = static_cast<std::uint8_t>(udp_length >> 8);
  frame[39] = static_cast<std::uint8_t>(udp_length);
  Append(frame, payload);
  return frame;
}

// Seven transport stream packets whose first 20 bytes are the fuzzer's, but for the sync byte.
inline Bytes Packets(FuzzInput& input) {
  Bytes payload;
  for (int i = 0; i < 7; ++i) {
    payload.push_back(0x47);
    const auto head = input.Take(20);
    Append(payload, head);
    payload.resize(static_cast<std::size_t>(i + 1) * 188, static_cast<std::uint8_t>(i));
  }
  return payload;
}

struct Frame {
  LinkType link = LinkType::kEthernet;
  Bytes bytes;
  std::size_t wire_length = 0;
};

inline Frame NextFrame(FuzzInput& input) {
  const std::uint32_t kind = input.Number(1);
  Frame frame;
  if (kind % 4 == 0) {
    frame.link = static_cast<LinkType>(kind / 4 % 4);
    frame.wire_length = input.Number(2);
    Append(frame.bytes, input.Take(input.Number(2) % 2048));
    frame.wire_length = std::max(frame.wire_length, frame.bytes.size());
    return frame;
  }
  Bytes payload;
  if (kind % 4 >= 2) {
    payload = {0x80, 33};
    Append(payload, input.Take(6));
    payload.resize(12, static_cast<std::uint8_t>(kind / 64));
  }
  if (kind % 4 == 3) {
    Append(payload, Packets(input));
  } else {
    Append(payload, input.Take(input.Number(2) % 2048));
  }
  frame.bytes = Datagram(payload, static_cast<std::uint8_t>(kind / 4 % 16));
  frame.wire_length = frame.bytes.size();
  return frame;
}

inline std::shared_ptr<ExpectedContent> MakeContent() {
  const int fd = ::memfd_create("expected", MFD_CLOEXEC);
  Bytes bytes(3000, 0xFF);
  for (std::size_t i = 1000; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * i / 7);
  }
  if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    std::abort();
  }
  auto file = ipplay::SteadyFile::Open("/proc/self/fd/" + std::to_string(fd));
  return std::make_shared<ExpectedContent>(*file);
}

// Six bits of `choice` decide.
inline MeasurementSettings SettingsBy(std::uint32_t choice) {
  static const std::shared_ptr<ExpectedContent> content = MakeContent();
  MeasurementSettings settings;
  settings.rtp = static_cast<RtpMode>(choice % 3);
  settings.max_streams = 8;
  if ((choice & 8) != 0) {
    settings.expected = content;
  }
  if ((choice & 16) != 0) {
    settings.expected_rate = 10e6;
  }
  if ((choice & 32) != 0) {
    settings.media_rate = 10e6;
  }
  return settings;
}

// Every captured frame is counted in one place, every datagram of it too.
inline void CheckSums(const Measurement& measurement) {
  std::uint64_t classes = 0;
  for (std::size_t i = 0; i < kFrameClasses; ++i) {
    classes += measurement.FramesOf(static_cast<FrameClass>(i));
  }
  std::uint64_t datagrams = measurement.Streams().UntrackedFrames() +
                            measurement.Streams().MalformedRtp() +
                            measurement.Streams().RtcpPackets();
  for (const auto& stream : measurement.Streams().Streams()) {
    datagrams += stream->Rate().Frames();
  }
  if (classes != measurement.CapturedFrames()) {
    std::abort();
  }
  // One frame with several datagrams that the kernel has joined counts as so many.
  const std::uint64_t frames = measurement.FramesOf(FrameClass::kUdp);
  if (datagrams != measurement.Rate().Frames() || datagrams < frames ||
      (datagrams != frames && measurement.JoinedFrames() == 0)) {
    std::abort();
  }
}

// Every view of the result, with every limit.
inline void ShowAll(const Measurement& measurement) {
  const Summary summary = Summarize(measurement, "fuzz", true, {});
  Requirements requirements{
      .limits = {}, .min_streams = 1, .content_equal = measurement.Settings().expected != nullptr};
  for (const LimitKind& kind : LimitKinds()) {
    requirements.limits.push_back({&kind, 1, false});
  }
  const auto verdicts = Judge(summary, requirements);
  const std::string text = JsonText(summary, verdicts) + ResultTable(summary, verdicts, {}) +
                           ReportHtml({summary, measurement, verdicts, {}, "now"});
  if (text.empty()) {
    std::abort();
  }
}

}  // namespace ipplay::measure::fuzz
