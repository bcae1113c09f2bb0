#include "control/datagram_layout.h"

#include <gtest/gtest.h>

#include <limits>

namespace ipplayout {
namespace {

constexpr std::uint32_t kRefused = 0xFFFFFFFF;

TEST(DatagramLayoutTest, PayloadsAreCutToTheMtuAndToWholePackets) {
  struct Given {
    std::uint32_t ts_packet_size;
    std::uint32_t tts;
    std::uint32_t size_mode;
    std::uint32_t bytes;    // of the whole frame, in mode 0
    std::uint32_t packets;  // in mode 1
    std::uint32_t fragmented_packets;
    std::uint32_t ip_version;
    std::uint32_t ip_fragmentation;
    std::uint32_t headers;
  };
  const struct {
    const char* what;
    Given given;
    std::uint32_t packet_size;
    std::uint32_t datagram_size;
  } cases[] = {
      {"7 packets", {188, 0, 1, 0, 7, 0, 0, 0, 42}, 188, 1358},
      {"frame size", {188, 0, 0, 1500, 0, 0, 0, 0, 54}, 188, 1370},
      {"packets cut anywhere", {188, 0, 0, 1500, 0, 1, 0, 0, 54}, 188, 1500},
      {"beyond the MTU", {188, 0, 1, 0, 8, 0, 0, 0, 54}, 188, 1370},
      {"beyond the MTU, fragmented", {188, 0, 1, 0, 8, 0, 0, 1, 54}, 188, 1558},
      {"IPv6 has the larger MTU", {188, 0, 1, 0, 90, 0, 1, 0, 74}, 188, 85 * 188 + 74},
      {"raw", {0, 0, 0, 1001, 7, 0, 0, 0, 54}, 0, 1001},
      {"raw in any mode", {0, 1, 1, 1001, 7, 0, 0, 0, 54}, 0, 1001},
      {"raw beyond the MTU", {0, 0, 0, 2000, 0, 0, 0, 0, 54}, 0, 1500},
      {"time-stamped", {188, 1, 1, 0, 7, 0, 0, 0, 54}, 192, 7 * 192 + 54},
      {"time-stamped, rounded", {188, 1, 0, 1500, 0, 0, 0, 0, 54}, 192, 7 * 192 + 54},
      {"204 bytes", {204, 0, 1, 0, 7, 0, 0, 0, 54}, 204, 7 * 204 + 54},
      {"less than a packet", {188, 0, 0, 100, 0, 0, 0, 0, 54}, 188, 54},
      {"headers alone", {188, 0, 0, 54, 0, 1, 0, 0, 54}, 188, 54},
      {"less than the headers", {188, 0, 0, 53, 0, 1, 0, 0, 54}, 188, kRefused},
      {"unknown mode", {188, 0, 2, 1500, 7, 0, 0, 0, 54}, 188, 54},
      {"largest values", {kRefused, 0, 1, 0, kRefused, 1, 0, 0, 54}, kRefused, 1500},
  };
  for (const auto& [what, given, packet_size, datagram_size] : cases) {
    PlayoutSettings settings{};
    settings.TSPacketSize = given.ts_packet_size;
    settings.tts.TTSEnabled = given.tts;
    settings.params.PacketSizeMode = given.size_mode;
    settings.params.IPPacketSize = given.bytes;
    settings.params.TSPacketCount = given.packets;
    settings.params.TSFragmentation = given.fragmented_packets;
    settings.params.IPLayerVersion = given.ip_version;
    settings.params.IPFragmentation = given.ip_fragmentation;
    const auto layout = LayOutDatagram(settings, given.headers);
    ASSERT_EQ(layout.has_value(), datagram_size != kRefused) << what;
    if (layout) {
      EXPECT_EQ(layout->packet_size, packet_size) << what;
      EXPECT_EQ(layout->datagram_size, datagram_size) << what;
    }
  }
}

TEST(DatagramLayoutTest, BatchesFollowFromRateJitterAndBursts) {
  const struct {
    double mbit;
    std::int32_t replication;
    std::uint32_t jitter;
    std::uint32_t distribution;
    std::uint32_t burst;
    std::uint32_t frames;
  } cases[] = {
      {80, 0, 0, 0, 0, 1},  {80.001, 0, 0, 0, 0, 10}, {40, 1, 0, 0, 0, 1},  {50, 1, 0, 0, 0, 10},
      {50, -3, 0, 0, 0, 1}, {1, 0, 1, 0, 0, 10},      {1, 0, 1, 3, 0, 200}, {1, 0, 0, 3, 0, 1},
      {1, 0, 2, 3, 0, 1},   {500, 0, 1, 3, 1, 77},    {1, 0, 0, 0, 1, 77},  {1, 0, 0, 0, 2, 1},
  };
  for (const auto& c : cases) {
    PlayoutSettings settings{};
    settings.IPBitRate = c.mbit;
    settings.params.ReplicationCount = c.replication;
    settings.parametric.JitterEnabled = c.jitter;
    settings.parametric.JitterDistributionType = c.distribution;
    settings.parametric.BurstMode = c.burst;
    EXPECT_EQ(PacketsPerQueue(settings, 77), c.frames) << c.mbit << ", " << c.distribution;
  }
}

TEST(DatagramLayoutTest, ReadingBeginsAtFourFifthsOfRingOrFile) {
  constexpr std::uint32_t kRing = 67108864;
  const std::pair<std::uint64_t, std::uint32_t> cases[] = {
      {0, 0},
      {1000000, 800000},
      {104857600, 53687091},
      {53687091, 53687091},
      {1, 0},
      {53687090, 42949672},
      {std::numeric_limits<std::uint64_t>::max(), 53687091}};
  for (const auto& [file_size, threshold] : cases) {
    EXPECT_EQ(StartThreshold(file_size, kRing), threshold) << file_size;
  }
}

}  // namespace
}  // namespace ipplayout
