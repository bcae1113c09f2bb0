// SPDX-License-Identifier: MIT
// Hostile inputs on their way into the library: packets are recognised, examined, planned for, read
// round by round and restamped. As many bytes come out as the plan says, and plain rounds are the
// input's own bytes, in order.
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "host/base/file_descriptor.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"
#include "host/stream/open_input.h"
#include "host/stream/round_reader.h"
#include "host/stream/stream_editor.h"
#include "host/stream/stream_facts.h"

using namespace ipplay;

namespace {

enum Mode : std::uint8_t {
  kPacked = 1,
  kRaw = 2,
  kPipe = 4,
  kRestamp = 8,
  kNearWrap = 16,
  kTts = 32,
  kProgram = 64
};

// Headers follow each other closely in the fuzzer's bytes; here each gets its packet.
std::vector<std::uint8_t> Unpack(std::span<const std::uint8_t> headers, bool tts) {
  constexpr std::size_t kHeader = 24;
  const std::size_t unit = tts ? 192 : 188;
  std::vector<std::uint8_t> stream;
  for (std::size_t at = 0; at + kHeader <= headers.size(); at += kHeader) {
    const std::size_t start = stream.size();
    stream.resize(start + unit, 0xFF);
    std::copy_n(headers.begin() + static_cast<std::ptrdiff_t>(at), kHeader,
                stream.begin() + static_cast<std::ptrdiff_t>(start));
    stream[start + unit - 188] = 0x47;
  }
  return stream;
}

const PlayOptions& OptionsFor(std::uint8_t mode) {
  static std::array<std::unique_ptr<PlayOptions>, 64> all;
  auto& options = all[mode % 64];
  if (options == nullptr) {
    options = std::make_unique<PlayOptions>();
    CLI::App app;
    DefinePlayOptions(app, *options);
    std::string line = "x --to rtp://239.1.1.1:5004 --bitrate 1M --ts-per-datagram 1";
    if ((mode & kRaw) != 0) {
      line = "x --to rtp://239.1.1.1:5004 --bitrate 1M --raw";
    }
    if ((mode & kPipe) == 0) {
      line += " --loop 3";
    }
    if ((mode & kRestamp) != 0 && (mode & kRaw) == 0) {
      line += " --restamp";
    }
    if ((mode & kNearWrap) != 0) {
      line += " --near-wrap";
    }
    app.parse(line);
  }
  return *options;
}

class Source {
 public:
  Source(const std::vector<std::uint8_t>& bytes, bool pipe) {
    if (pipe) {
      int ends[2];
      if (::pipe(ends) != 0) {
        std::abort();
      }
      fd_ = FileDescriptor(ends[0]);
      const FileDescriptor writer(ends[1]);
      if (write(ends[1], bytes.data(), bytes.size()) < 0) {
        std::abort();
      }
    } else {
      fd_ = FileDescriptor(memfd_create("stream", MFD_CLOEXEC));
      if (write(fd_.Get(), bytes.data(), bytes.size()) < 0) {
        std::abort();
      }
    }
  }
  Result<Input> Open() const {
    return OpenInput("/proc/self/fd/" + std::to_string(fd_.Get()), {}, -1);
  }

 private:
  FileDescriptor fd_;
};

void Play(const std::vector<std::uint8_t>& bytes, RoundReader& reader, const StreamFacts& facts,
          const PlayPlan& plan) {
  std::uint64_t played = 0;
  auto at = bytes.begin();
  const auto take = [&](std::span<const std::uint8_t> piece) {
    if (!plan.edits.restamp && !plan.edits.fill && !facts.filter.program &&
        facts.filter.pids.empty()) {
      at = std::search(at, bytes.end(), piece.begin(), piece.end());
      if (bytes.end() - at < static_cast<std::ptrdiff_t>(piece.size())) {
        std::abort();
      }
      at += static_cast<std::ptrdiff_t>(piece.size());
    }
    played += piece.size();
    return true;
  };
  StreamEditor editor(facts.format, plan.edits);
  for (std::uint64_t round = 1; round <= plan.rounds.count.value_or(1); ++round) {
    at = bytes.begin();
    if (round > 1) {
      reader.StartNextRound();
      editor.StartNextRound();
    }
    for (auto packets = reader.Next(); !packets.empty(); packets = reader.Next()) {
      editor.Run(packets, take);
    }
    editor.EndRound(take);
  }
  editor.Finish(take);
  if (reader.ReadError() != 0 ||
      (plan.rounds.total_bytes && !plan.edits.fill && played != *plan.rounds.total_bytes)) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2 || size > 4096) {
    return 0;
  }
  const std::uint8_t mode = data[0];
  const std::span<const std::uint8_t> rest(data + 1, size - 1);
  const std::vector<std::uint8_t> bytes = (mode & kPacked) != 0
                                              ? Unpack(rest, (mode & kTts) != 0)
                                              : std::vector<std::uint8_t>(rest.begin(), rest.end());
  const PlayOptions& options = OptionsFor(mode);
  const Source source(bytes, (mode & kPipe) != 0);
  auto input = source.Open();
  if (!input) {
    return 0;  // begins as a capture does, in which there is no stream
  }
  ExamineOptions examine;
  examine.raw = options.raw;
  if ((mode & kProgram) != 0) {
    if ((mode & kTts) != 0) {
      examine.filter.pids = {0x100};
    } else {
      examine.filter.program = 1;
    }
  }
  const auto facts = Examine(*input, examine);
  if (!facts) {
    return 0;
  }
  Path path;
  path.source = options.to.address;
  path.destination = MacAddress{};
  const auto plan = MakePlan(options, *facts, path);
  if (!plan) {
    return 0;
  }
  RoundReader reader(std::move(*input), *facts);
  Play(bytes, reader, *facts, *plan);
  return 0;
}
