// SPDX-License-Identifier: MIT
// Hostile captures as inputs: a file as it stands, or frames in a file that is in order. The stream
// is as long as it says, and the same when it is read again.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/base/file_descriptor.h"
#include "host/stream/capture_file.h"
#include "host/stream/open_input.h"
#include "host/stream/round_reader.h"
#include "host/stream/stream_facts.h"

using namespace ipplay;

namespace {

using Bytes = std::vector<std::uint8_t>;

void Put32(Bytes& file, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    file.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
}

// Each frame stands behind a byte with a quarter of its length. Ethernet, with microseconds.
Bytes CaptureOf(std::span<const std::uint8_t> frames) {
  Bytes file;
  for (const std::uint32_t word : {0xA1B2C3D4U, 0x00040002U, 0U, 0U, 65535U, 1U}) {
    Put32(file, word);
  }
  while (!frames.empty()) {
    const std::size_t length = std::min<std::size_t>(4 * std::size_t{frames[0]}, frames.size() - 1);
    const auto frame = frames.subspan(1, length);
    for (const std::size_t word : {file.size(), std::size_t{0}, length, length}) {
      Put32(file, static_cast<std::uint32_t>(word));
    }
    file.insert(file.end(), frame.begin(), frame.end());
    frames = frames.subspan(1 + length);
  }
  return file;
}

Bytes ReadRound(RoundReader& reader) {
  Bytes all;
  for (auto bytes = reader.Next(); !bytes.empty(); bytes = reader.Next()) {
    if (!reader.ArrivalOf(0) || !reader.ArrivalOf(bytes.size() - 1)) {
      std::abort();
    }
    all.insert(all.end(), bytes.begin(), bytes.end());
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2 || size > 4096) {
    return 0;
  }
  const std::span<const std::uint8_t> rest(data + 1, size - 1);
  const bool raw = (data[0] & 1) != 0;
  const Bytes bytes = (data[0] & 2) != 0 ? CaptureOf(rest) : Bytes(rest.begin(), rest.end());
  const FileDescriptor fd(memfd_create("capture", MFD_CLOEXEC));
  if (write(fd.Get(), bytes.data(), bytes.size()) < 0) {
    std::abort();
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd.Get());
  if (!IsCapture(path)) {
    return 0;
  }
  auto input = OpenInput(path, {.raw = raw}, -1);
  if (!input) {
    return 0;
  }
  const auto facts = Examine(*input, {.raw = raw});
  if (!facts) {
    return 0;
  }
  RoundReader reader(std::move(*input), *facts);
  const Bytes round = ReadRound(reader);
  reader.StartNextRound();
  if (round.size() != facts->bytes || ReadRound(reader) != round || reader.ReadError() != 0) {
    std::abort();
  }
  return 0;
}
