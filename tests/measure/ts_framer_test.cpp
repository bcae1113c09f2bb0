// SPDX-License-Identifier: MIT
#include "host/measure/figures/ts_framer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "frame_builder.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;

// Packets of a format, whose fourth bytes count from 0.
Bytes MakeStream(std::size_t packets, std::size_t before, std::size_t behind) {
  Bytes stream;
  for (std::size_t i = 0; i < packets; ++i) {
    stream.insert(stream.end(), before, 0xAA);
    Bytes packet(188, 0x11);
    packet[0] = 0x47;
    packet[3] = static_cast<std::uint8_t>(i);
    stream.insert(stream.end(), packet.begin(), packet.end());
    stream.insert(stream.end(), behind, 0xBB);
  }
  return stream;
}

struct Found {
  std::vector<std::size_t> numbers;
  std::vector<std::size_t> places;  // in the whole stream
};

Found PushAll(TsFramer& framer, const Bytes& stream, std::size_t piece) {
  Found found;
  for (std::size_t at = 0; at < stream.size(); at += piece) {
    const auto payload = std::span(stream).subspan(at, std::min(piece, stream.size() - at));
    framer.Push(payload, [&](TsPacket packet, std::ptrdiff_t offset) {
      if (packet[0] != 0x47) {
        return;
      }
      found.numbers.push_back(packet[3]);
      found.places.push_back(at + static_cast<std::size_t>(offset));
    });
  }
  return found;
}

TEST(TsFramer, FindsEveryPacketOfEveryFormatHoweverItIsCut) {
  for (const std::size_t length : {188U, 192U, 204U}) {
    for (const std::size_t missing : {0U, 100U}) {  // joined within a packet
      Bytes stream = MakeStream(40, length == 192 ? 4 : 0, length == 204 ? 16 : 0);
      stream.erase(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(missing));
      Found expected;
      for (std::size_t i = missing > 0 ? 1 : 0; i < 40; ++i) {
        expected.numbers.push_back(i);
        expected.places.push_back(i * length + (length == 192 ? 4 : 0) - missing);
      }
      // Whole packets, one packet, cut packets, hardly anything.
      for (const std::size_t piece : {7 * length, length, std::size_t{1400}, std::size_t{100}}) {
        SCOPED_TRACE(::testing::Message() << length << " in pieces of " << piece);
        TsFramer framer;
        const Found found = PushAll(framer, stream, piece);
        EXPECT_EQ(found.numbers, expected.numbers);
        EXPECT_EQ(found.places, expected.places);
        EXPECT_EQ(framer.PacketLength(), length);
        EXPECT_EQ(framer.SyncByteErrors(), 0U);
      }
    }
  }
}

TEST(TsFramer, OneWrongSyncByteIsAnErrorAndTwoInARowALoss) {
  Bytes stream = MakeStream(70, 0, 0);
  stream[10 * 188] = 0x46;
  stream[40 * 188] = stream[41 * 188] = 0;
  TsFramer framer;
  const Found found = PushAll(framer, stream, 7 * 188);
  EXPECT_EQ(framer.SyncByteErrors(), 3U);
  EXPECT_EQ(framer.SyncLosses(), 1U);
  EXPECT_EQ(found.numbers.size(), 67U);
  EXPECT_TRUE(framer.IsSynced());
}

}  // namespace
}  // namespace ipplay::measure
