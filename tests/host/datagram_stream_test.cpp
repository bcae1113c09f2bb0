// SPDX-License-Identifier: MIT
// Datagrams as they come from a capture or a socket, and the stream that they make.
#include "host/stream/datagram_stream.h"

#include <gtest/gtest.h>

#include <array>

namespace ipplay {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Four bytes of payload, all of them the number. If `dressed`, one CSRC, an extension of one word,
// and two bytes of padding are around them (RFC 3550, 5.1).
Bytes RtpDatagram(std::uint16_t number, bool dressed = false) {
  const auto low = static_cast<std::uint8_t>(number);
  const auto high = static_cast<std::uint8_t>(number >> 8);
  if (dressed) {
    return {0xB1, 33, high, low, 0, 0, 0, 0, 1, 2,   3,   4,   9,   9, 9,
            9,    0,  0,    0,   1, 8, 8, 8, 8, low, low, low, low, 0, 2};
  }
  return {0x80, 33, high, low, 0, 0, 0, 0, 1, 2, 3, 4, low, low, low, low};
}

Bytes TakeAll(DatagramStream& stream) {
  Bytes all;
  std::array<std::uint8_t, 7> piece{};
  while (stream.HasBytes()) {
    const std::size_t count = stream.Take(piece);
    all.insert(all.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(count));
  }
  return all;
}

Bytes StreamOf(const std::vector<int>& numbers) {
  Bytes bytes;
  for (const int number : numbers) {
    bytes.insert(bytes.end(), 4, static_cast<std::uint8_t>(number));
  }
  return bytes;
}

TEST(DatagramStream, RtpIsPutInOrder) {
  struct Case {
    std::vector<int> come;
    std::vector<int> played;
    std::vector<std::string> notes;
  };
  const std::string missing = "INPUT: 1 RTP packet is missing";
  const std::string late = "INPUT: 1 RTP packet came late and was put in order";
  const std::string twice = "INPUT: 1 RTP packet came twice and is left out the second time";
  for (const Case& c : {Case{{1, 2, 3}, {1, 2, 3}, {}},
                        {{1, 3, 2, 4}, {1, 2, 3, 4}, {late}},
                        {{1, 2, 2, 3}, {1, 2, 3}, {twice}},
                        {{1, 2, 4, 5}, {1, 2, 4, 5}, {missing}},
                        {{65535, 1, 0, 2}, {65535, 0, 1, 2}, {late}}}) {
    DatagramStream stream(true);
    for (const int number : c.come) {
      stream.Add(RtpDatagram(static_cast<std::uint16_t>(number)), 0);
    }
    stream.Flush();
    EXPECT_EQ(TakeAll(stream), StreamOf(c.played));
    EXPECT_EQ(stream.Notes(), c.notes);
  }
}

TEST(DatagramStream, HeadersAndPaddingAreTakenOff) {
  DatagramStream stream(true);
  stream.Add(RtpDatagram(7, true), 0);
  stream.Add(Bytes(20, 0x47), 0);  // no RTP version 2
  stream.Add(Bytes{}, 0);
  EXPECT_EQ(TakeAll(stream), StreamOf({7}));
  EXPECT_EQ(stream.Notes(),
            std::vector<std::string>{"INPUT: 2 datagrams without an RTP header are left out"});
}

TEST(DatagramStream, EachByteKnowsWhenItCame) {
  DatagramStream stream(false);
  stream.Add(Bytes(10, 1), 100);
  stream.Add(Bytes{}, 150);
  stream.Add(Bytes(10, 2), 200);
  std::array<std::uint8_t, 5> five{};
  const auto arrivals = [&stream] {
    const auto all = stream.Arrivals();
    return std::vector<Arrival>(all.begin(), all.end());
  };
  EXPECT_EQ(stream.Take(five), 5U);
  EXPECT_EQ(arrivals(), (std::vector<Arrival>{{0, 100}}));
  std::array<std::uint8_t, 10> ten{};
  EXPECT_EQ(stream.Take(ten), 10U);
  EXPECT_EQ(arrivals(), (std::vector<Arrival>{{0, 100}, {10, 200}}));
  EXPECT_EQ(stream.Take(ten), 5U);
  EXPECT_EQ(arrivals(), (std::vector<Arrival>{{10, 200}}));
  stream.Add(Bytes(3, 3), 300);
  EXPECT_EQ(stream.Take(ten), 3U);
  EXPECT_EQ(arrivals(), (std::vector<Arrival>{{20, 300}}));
}

TEST(DatagramStream, WhatIsMissingAndWhatCameLateIsKnown) {
  DatagramStream stream(true);
  for (const auto& [number, time] : std::vector<std::pair<std::uint16_t, std::int64_t>>{
           {65534, 10}, {65535, 20}, {2, 30}, {1, 40}, {3, 50}, {30000, 60}, {4, 70}}) {
    stream.Add(RtpDatagram(number), time);
  }
  stream.Flush();
  std::array<std::uint8_t, 100> all{};
  EXPECT_EQ(stream.Take(all), 28U);
  const auto arrivals = stream.Arrivals();
  // The number 0 is missing; 1 came behind 2, and nothing is known of what lies around a stray one.
  EXPECT_EQ(
      std::vector<Arrival>(arrivals.begin(), arrivals.end()),
      (std::vector<Arrival>{{0, 10}, {4, 20}, {8, 30, 1}, {12, 30}, {16, 50}, {20, 60}, {24, 70}}));
  EXPECT_EQ(stream.Facts(), (DatagramFacts{.count = 7,
                                           .bytes = 28,
                                           .missing = 1,
                                           .is_numbered = true,
                                           .first_bytes = 4,
                                           .are_alike = true,
                                           .first_ns = 10,
                                           .last_ns = 70}));
}

TEST(RtpGuess, TakesWhatContinues) {
  RtpGuess rtp;
  RtpGuess other;
  for (int i = 0; i < 10; ++i) {
    const Bytes datagram = RtpDatagram(static_cast<std::uint16_t>(65530 + i));
    rtp.Add(datagram, datagram.size());
    const Bytes odd = RtpDatagram(static_cast<std::uint16_t>(i * 5000));
    other.Add(odd, odd.size());
  }
  EXPECT_TRUE(rtp.IsRtp());
  EXPECT_FALSE(other.IsRtp());
}

}  // namespace
}  // namespace ipplay
