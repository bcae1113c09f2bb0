// SPDX-License-Identifier: MIT
// From an input to what the library gets: examining, reading round by round, feeding.
#include "host/stream/input.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <numeric>
#include <thread>

#include "host/play/feeder.h"
#include "host/stream/open_input.h"
#include "host/stream/pes_times.h"
#include "host/stream/stream_facts.h"
#include "tests/host/temporary_file.h"
#include "tests/host/ts_builder.h"

namespace ipplay {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::uint64_t kTicks = 27'000;  // 1,000 packets per second, 1.504 Mbit/s

// A pipe with a name, filled by a thread.
class Fifo {
 public:
  Fifo() {
    mkfifo(path_.c_str(), 0600);
    signal(SIGPIPE, SIG_IGN);  // a reader may have enough
  }
  ~Fifo() {
    if (writer_.joinable()) {
      writer_.join();
    }
    std::filesystem::remove(path_);
  }
  // Writes in pieces that do not end with packets, then closes the pipe.
  void Fill(Bytes content) {
    writer_ = std::thread([this, content = std::move(content)] {
      const int fd = open(path_.c_str(), O_WRONLY);
      for (std::size_t at = 0; at < content.size(); at += 1000) {
        if (write(fd, &content[at], std::min<std::size_t>(1000, content.size() - at)) < 0) {
          break;
        }
      }
      close(fd);
    });
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_ = "/tmp/ipplay-test-fifo-" + std::to_string(getpid());
  std::thread writer_;
};

struct Fed {
  std::optional<StreamFacts> facts{};
  std::string failure{};
  Bytes bytes{};
  bool terminated = false;
  Damage damage{};
};

// Plays an input to its end into memory.
Fed Feed(const std::string& path, const ExamineOptions& options = {}, std::uint64_t rounds = 1,
         std::optional<std::uint64_t> restamp_ticks = {}) {
  Fed fed;
  auto input = OpenInput(path, {}, -1);
  if (!input) {
    return {.failure = input.Error().message};
  }
  const auto facts = Examine(*input, options);
  if (!facts) {
    return {.failure = facts.Error().message};
  }
  fed.facts = *facts;
  std::promise<void> ended;
  const Feeder::Sink sink{.write =
                              [&fed](const void* data, std::uint16_t units) {
                                const auto* bytes = static_cast<const std::uint8_t*>(data);
                                fed.bytes.insert(fed.bytes.end(), bytes, bytes + 4 * units);
                                return 0;
                              },
                          .terminate =
                              [&] {
                                fed.terminated = true;
                                ended.set_value();
                              }};
  EditPlan edits;
  if (restamp_ticks) {
    edits.restamp = RestampPlan{.round_ticks = *restamp_ticks};
  }
  Feeder feeder(std::make_unique<RoundReader>(std::move(*input), *facts), edits, rounds, sink);
  feeder.Start();
  ended.get_future().wait();
  feeder.Join();
  fed.damage = feeder.Damaged();
  return fed;
}

Bytes Repeated(const Bytes& bytes, int times) {
  Bytes all;
  for (int i = 0; i < times; ++i) {
    all.insert(all.end(), bytes.begin(), bytes.end());
  }
  return all;
}

TEST(PesTimes, WhatIsSkippedCountsAsTime) {
  for (const bool skips : {true, false}) {
    PesTimes times;
    for (const std::uint64_t pts : {0U, 3600U, 7200U, 9'000'000U, 9'003'600U}) {
      if (skips && pts == 9'000'000) {
        times.Skip();
      }
      times.Add(MakePacket({.pts = pts}).data());
    }
    EXPECT_EQ(times.Ticks(), skips ? 9'007'200U : 0U);  // or one that jumps
  }
}

TEST(Input, CutEndsAreLeftOut) {
  const Bytes stream = MakeStream(50, kTicks);
  Bytes cut(77 + stream.size() + 40, 0x47);
  std::fill_n(cut.begin(), 77, std::uint8_t{0x22});
  std::copy(stream.begin(), stream.end(), cut.begin() + 77);
  const Fed fed = Feed(TemporaryFile(cut).path(), {}, 2);
  ASSERT_TRUE(fed.facts) << fed.failure;
  EXPECT_EQ(fed.facts->first_packet, 77U);
  EXPECT_EQ(fed.facts->trailing_bytes, 40U);
  EXPECT_EQ(fed.bytes, Repeated(stream, 2));
}

TEST(Input, RestampingTouchesLaterRoundsOnly) {
  const Bytes stream = MakeStream(160, kTicks);  // counters start again where they ended
  const Fed fed = Feed(TemporaryFile(stream).path(), {}, 2, 160 * kTicks);
  ASSERT_EQ(fed.bytes.size(), 2 * stream.size());
  EXPECT_TRUE(std::equal(stream.begin(), stream.end(), fed.bytes.begin()));
  EXPECT_EQ(fed.bytes, MakeStream(320, kTicks));
}

// Where bytes of a stream are changed, missing or added, and what of it is played.
struct Spoiling {
  const char* name;
  std::function<void(Bytes& stream)> spoil;
  std::vector<int> missing;  // packets that are not played
  Damage damage{};           // as a file has it
};

const std::vector<Spoiling>& Spoilings() {
  static const auto at = [](Bytes& s, std::size_t byte) {
    return s.begin() + static_cast<std::ptrdiff_t>(byte);
  };
  static const std::vector<Spoiling> all{
      {"one sync byte", [](Bytes& s) { s[40 * 188] = 0; }, {40}, {188, 1, 40 * 188}},
      {"the last sync byte", [](Bytes& s) { s[4999 * 188] = 0; }, {4999}, {188, 1, 4999 * 188}},
      {"the third sync byte", [](Bytes& s) { s[2 * 188] = 0; }, {2}, {188, 1, 2 * 188}},
      {"two apart", [](Bytes& s) { s[40 * 188] = s[90 * 188] = 0; }, {40, 90}, {376, 2, 40 * 188}},
      {"two next to each other",
       [](Bytes& s) { s[40 * 188] = s[41 * 188] = 0; },
       {40, 41},
       {376, 1, 40 * 188}},
      {"bytes cut out",
       [](Bytes& s) { s.erase(at(s, 3000 * 188 + 50), at(s, 3000 * 188 + 150)); },
       {3000},
       {88, 1, 3000 * 188}},
      {"bytes between packets",
       [](Bytes& s) { s.insert(at(s, 2000 * 188), 1000, 0x22); },
       {},
       {1000, 1, 2000 * 188}},
  };
  return all;
}

Bytes Without(const Bytes& stream, const std::vector<int>& packets) {
  Bytes rest = stream;
  for (auto packet = packets.rbegin(); packet != packets.rend(); ++packet) {
    const auto start = rest.begin() + *packet * 188;
    rest.erase(start, start + 188);
  }
  return rest;
}

TEST(Input, DamageIsLeftOutOfFiles) {
  const Bytes stream = MakeStream(5000, kTicks);
  for (const auto& [name, spoil, missing, damage] : Spoilings()) {
    Bytes spoilt = stream;
    spoil(spoilt);
    const Fed fed = Feed(TemporaryFile(spoilt).path(), {}, 2);
    ASSERT_TRUE(fed.facts) << name << fed.failure;
    EXPECT_EQ(fed.bytes, Repeated(Without(stream, missing), 2)) << name;
    EXPECT_EQ(fed.facts->bytes, stream.size() - 188 * missing.size()) << name;
    EXPECT_EQ(fed.facts->damage, damage) << name;
    EXPECT_EQ(fed.damage, damage) << name;
  }
}

// A pipe gives bytes as they come: a packet that is cut short where they end for now goes through.
TEST(Input, DamageIsLeftOutOfPipes) {
  const Bytes stream = MakeStream(5000, kTicks);
  for (const auto& [name, spoil, missing, damage] : Spoilings()) {
    Bytes spoilt = stream;
    spoil(spoilt);
    Fifo fifo;
    fifo.Fill(spoilt);
    const Fed fed = Feed(fifo.path(), {.read_ahead = std::chrono::nanoseconds(0)});
    EXPECT_EQ(fed.bytes, Without(stream, missing)) << name;
    EXPECT_EQ(fed.damage, damage) << name;
  }
}

// 1,000 packets per second, with a PCR in every tenth.
TEST(Input, WindowIsCutByPcrs) {
  const Bytes stream = MakeStream(5000, kTicks, kPcrModulus - 2000 * kTicks);  // wraps after 2 s
  constexpr std::uint64_t kSecond = kPcrHz;
  struct Case {
    TimeSpan window;
    std::size_t first;
    std::size_t end;
  };
  const TemporaryFile file(stream);
  for (const Case& c :
       {Case{{.from = kSecond}, 1000, 5000}, Case{{.from = 0, .until = 3 * kSecond}, 0, 3000},
        Case{{.from = kSecond, .until = 3 * kSecond}, 1000, 3000},
        Case{{.from = kSecond + 1, .until = kSecond + 2 * kTicks}, 1010, 1010},
        Case{{.from = 4 * kSecond, .until = 9 * kSecond}, 4000, 5000}}) {
    const Bytes wanted(stream.begin() + static_cast<std::ptrdiff_t>(c.first * 188),
                       stream.begin() + static_cast<std::ptrdiff_t>(c.end * 188));
    ExamineOptions options;
    options.window = c.window;
    Fifo fifo;
    fifo.Fill(stream);
    EXPECT_EQ(Feed(fifo.path(), options).bytes, wanted) << c.first;
    if (wanted.empty()) {
      continue;
    }
    const Fed fed = Feed(file.path(), options, 2);
    ASSERT_TRUE(fed.facts) << fed.failure;
    EXPECT_EQ(fed.bytes, Repeated(wanted, 2)) << c.first;
    EXPECT_EQ(fed.facts->bytes, wanted.size());
    EXPECT_EQ(fed.facts->leading_bytes, 0U);
  }
  ExamineOptions late;
  late.window = TimeSpan{.from = 6 * kSecond};
  EXPECT_EQ(Feed(file.path(), late).failure, "--from: INPUT lasts 4.99 s by its PCRs; give less");
}

TEST(Input, FollowsAFileThatGrows) {
  const Bytes stream = MakeStream(3000, kTicks);
  const auto half = std::span(stream).first(1500 * 188 + 50);
  const TemporaryFile file(half);
  const InputOptions options{.follow = true, .silence = std::chrono::milliseconds(300)};
  auto input = OpenInput(file.path(), options, -1);
  ASSERT_TRUE(input);
  Bytes read(half.size());
  EXPECT_EQ(input->ReadFully(read), half.size());
  std::ofstream(file.path(), std::ios::app | std::ios::binary)
      .write(reinterpret_cast<const char*>(stream.data() + half.size()),
             static_cast<std::streamsize>(stream.size() - half.size()));
  read.resize(stream.size() + 1);
  const auto rest = std::span(read).subspan(half.size());
  EXPECT_EQ(input->ReadFully(rest), stream.size() - half.size());
  read.pop_back();
  EXPECT_EQ(read, stream);
}

// Of 50 GB nothing is read between the ends: the file has no more than these.
TEST(Input, LargeFileIsKnownByItsEnds) {
  constexpr std::uint64_t kPackets = 266'000'000;  // 7.4 hours at 10,000 a second
  constexpr std::uint64_t kAtEnd = 100'000;
  struct Case {
    std::uint64_t pcr_of_tail;
  };
  const std::uint64_t later = (kPackets - kAtEnd) * 2700 % kPcrModulus;
  for (const Case& c : {Case{later}, Case{1'000'000}}) {
    TemporaryFile file(MakeStream(kAtEnd, 2700));
    const Bytes tail = MakeStream(kAtEnd, 2700, c.pcr_of_tail);
    {
      std::ofstream stream(file.path(), std::ios::in | std::ios::binary);
      stream.seekp(static_cast<std::streamoff>((kPackets - kAtEnd) * 188));
      stream.write(reinterpret_cast<const char*>(tail.data()),
                   static_cast<std::streamsize>(tail.size()));
    }
    auto input = OpenInput(file.path(), {}, -1);
    const auto facts = Examine(*input, {});
    ASSERT_TRUE(facts && facts->rate);
    EXPECT_EQ(facts->Packets(), kPackets);
    EXPECT_NEAR(facts->rate->packets_per_second, 10'000, 0.01);
    EXPECT_EQ(facts->rate->discontinuities, 0U);
  }
}

TEST(Feeder, RefusedWriteEndsIt) {
  const TemporaryFile file(MakeStream(1000, kTicks));
  auto input = OpenInput(file.path(), {}, -1);
  const auto facts = Examine(*input, {});
  int writes = 0;
  bool terminated = false;
  {
    Feeder feeder(
        std::make_unique<RoundReader>(std::move(*input), *facts), EditPlan(), std::nullopt,
        {.write = [&writes](const void*, std::uint16_t) { return ++writes < 5 ? 0 : -800; },
         .terminate = [&terminated] { terminated = true; }});
    feeder.Start();
  }
  EXPECT_LE(writes, 5);
  EXPECT_FALSE(terminated);
}

TEST(WordWriter, UnitsOfAnyCut) {
  for (const std::size_t piece : {1UL, 2UL, 3UL, 5UL, 4096UL, 300'001UL}) {
    Bytes written;
    std::size_t largest = 0;
    WordWriter writer([&](const void* data, std::uint16_t units) {
      const auto* bytes = static_cast<const std::uint8_t*>(data);
      written.insert(written.end(), bytes, bytes + 4 * std::size_t{units});
      largest = std::max<std::size_t>(largest, units);
      return 0;
    });
    Bytes bytes(300'002);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{7});
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      const auto rest = std::span(bytes).subspan(at);
      ASSERT_TRUE(writer.Write(rest.first(std::min(piece, rest.size()))));
    }
    EXPECT_EQ(written.size(), 300'000U) << piece;
    ASSERT_TRUE(writer.Finish());
    EXPECT_EQ(writer.Padding(), 2U);
    bytes.resize(300'004);
    EXPECT_EQ(written, bytes) << piece;
  }
}

}  // namespace
}  // namespace ipplay
