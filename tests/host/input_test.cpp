// SPDX-License-Identifier: MIT
// From an input to what the library gets: examining, reading round by round, feeding.
#include "host/stream/input.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <future>
#include <numeric>
#include <thread>

#include "host/play/feeder.h"
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
  Fifo() { mkfifo(path_.c_str(), 0600); }
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
  std::optional<std::uint64_t> sync_lost{};
};

// Plays an input to its end into memory.
Fed Feed(const std::string& path, const ExamineOptions& options = {}, std::uint64_t rounds = 1,
         std::optional<std::uint64_t> restamp_ticks = {}) {
  Fed fed;
  auto input = Input::Open(path, -1);
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
  std::optional<Restamper> restamper;
  if (restamp_ticks) {
    restamper.emplace(facts->format, RestampPlan{.round_ticks = *restamp_ticks});
  }
  Feeder feeder(std::make_unique<RoundReader>(std::move(*input), *facts), restamper, rounds, sink);
  feeder.Start();
  ended.get_future().wait();
  fed.sync_lost = feeder.SyncLost();
  return fed;
}

Bytes Repeated(const Bytes& bytes, int times) {
  Bytes all;
  for (int i = 0; i < times; ++i) {
    all.insert(all.end(), bytes.begin(), bytes.end());
  }
  return all;
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

TEST(Input, PipeThatLosesSyncIsPlayedAndSaidSo) {
  Bytes stream = MakeStream(5000, kTicks);
  stream[4000 * 188] = 0;
  Fifo fifo;
  fifo.Fill(stream);
  const Fed fed = Feed(fifo.path(), {.want_rate = false});
  EXPECT_EQ(fed.bytes, stream);
  EXPECT_EQ(fed.sync_lost, 4000U * 188);
}

TEST(Feeder, RefusedWriteEndsIt) {
  const TemporaryFile file(MakeStream(1000, kTicks));
  auto input = Input::Open(file.path(), -1);
  const auto facts = Examine(*input, {});
  int writes = 0;
  bool terminated = false;
  {
    Feeder feeder(
        std::make_unique<RoundReader>(std::move(*input), *facts), std::nullopt, std::nullopt,
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
