// SPDX-License-Identifier: MIT
#include "driver/capture_file_sink.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/own_folder.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;
using Bytes = std::vector<std::uint8_t>;

constexpr nanoseconds kEpoch = std::chrono::seconds(1'600'000'000);

// What a command prints.
std::string Output(const std::string& command) {
  std::string text;
  FILE* const pipe = ::popen(command.c_str(), "r");
  for (char some[4096]; ::fgets(some, sizeof some, pipe) != nullptr;) {
    text += some;
  }
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return text;
}

std::unique_ptr<CaptureFileSink> Open(const std::string& path) {
  auto opened = CaptureFileSink::Open({path, {"ipplayout", "virtual"}, kEpoch});
  EXPECT_EQ(opened.error, 0) << opened.step;
  return std::move(opened.value);
}

// Frames of every length from 60 bytes on, with a local experimental EtherType.
class Frames {
 public:
  explicit Frames(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      bytes_.emplace_back(60 + i, static_cast<std::uint8_t>(i));
      bytes_.back()[12] = 0x88;
      bytes_.back()[13] = 0xB5;
    }
    for (std::size_t i = 0; i < count; ++i) {
      outgoing_.push_back({bytes_[i], nanoseconds(i * 1'000'000'007), 0});
    }
  }
  std::span<const OutgoingFrame> Outgoing() const { return outgoing_; }
  // As tshark would list them: time, length, bytes behind the Ethernet header.
  std::string Listed() const {
    std::string text;
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
      char line[64];
      ::snprintf(line, sizeof line, "%zu.%09zu\t%zu\t", 1'600'000'000 + i, i * 7, bytes_[i].size());
      text += line;
      for (std::size_t at = 14; at < bytes_[i].size(); ++at) {
        ::snprintf(line, sizeof line, "%02x", bytes_[i][at]);
        text += line;
      }
      text += "\n";
    }
    return text;
  }

 private:
  std::vector<Bytes> bytes_;
  std::vector<OutgoingFrame> outgoing_;
};

TEST(CaptureFileSink, OtherProgramsReadTheSameFramesAndTimes) {
  const OwnFolder folder;
  const Frames frames(64);
  const platform::DeadlineWaiter waiter;
  for (const std::string name : {"one", "two"}) {
    const auto sink = Open(folder.File(name));
    EXPECT_TRUE(sink->IsVirtual());
    EXPECT_EQ(sink->Send(frames.Outgoing(), waiter).sent, 64U);
    EXPECT_EQ(sink->Finish(), 0);
  }
  EXPECT_EQ(ContentOf(folder.File("one")), ContentOf(folder.File("two")));
  const std::string path = folder.File("one");
  EXPECT_EQ(Output("tshark -n -r " + path +
                   " -T fields -e frame.time_epoch -e frame.len -e data.data 2>/dev/null"),
            frames.Listed());
  const std::string facts = Output("capinfos -M " + path);
  for (const char* fact : {"pcapng", "Encapsulation = Ethernet", "Name = virtual",
                           "Time resolution = 0x09", "Number of packets:   64"}) {
    EXPECT_NE(facts.find(fact), std::string::npos) << fact << " is not in:\n" << facts;
  }
}

TEST(CaptureFileSink, ReportsAFullDiskWhileItSendsAndAtTheEnd) {
  const Frames frames(64);
  const platform::DeadlineWaiter waiter;
  const auto sink = Open("/dev/full");
  FrameSink::Result result;
  for (std::size_t sent = 0; result.error == 0; sent += result.sent) {
    ASSERT_LT(sent, 10'000U);
    result = sink->Send(frames.Outgoing(), waiter);
  }
  EXPECT_LT(result.sent, 64U);
  EXPECT_EQ(result.error, ENOSPC);
  EXPECT_FALSE(result.of_frame);
  EXPECT_EQ(sink->Finish(), ENOSPC);
}

TEST(CaptureFileSink, AFrameThatIsTooLongIsItsOwnFault) {
  const platform::DeadlineWaiter waiter;
  const Bytes too_long(PcapngWriter::kMostPacketBytes + 1);
  const Bytes good(60);
  const OutgoingFrame frames[] = {{good, {}, 0}, {too_long, {}, 0}};
  const auto result = Open("/dev/null")->Send(frames, waiter);
  EXPECT_EQ(result.sent, 1U);
  EXPECT_EQ(result.error, EMSGSIZE);
  EXPECT_TRUE(result.of_frame);
}

}  // namespace
}  // namespace ipplayout
