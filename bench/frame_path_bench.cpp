// SPDX-License-Identifier: MIT
// What the data pump does to one frame of 1,370 bytes: payload out of the ring, headers and
// checksums of all layers, time stamp and queueing. The adapter below takes everything at no cost.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "control/datagram_layout.h"
#include "control/header_chain.h"
#include "payload/data_buffer.h"
#include "payload/error_insertion_manager.h"
#include "protocol/internet_checksum.h"
#include "protocol/replication_manager.h"
#include "transmit/parametric_manager.h"
#include "transmit/pcap_rt_interface.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kPayload = 7 * 188;
constexpr std::uint32_t kFrame = 1370;

class NullHandle final : public CaptureHandle {
 public:
  int DataLink() const override { return kEthernetDataLink; }
  FilterResult SetFilter(const char*, std::uint32_t) override { return {}; }
  bool SendFrame(std::span<const std::uint8_t>) override { return true; }
  std::size_t TransmitQueue(const SendQueue& queue, bool, platform::DeadlineWaiter&) override {
    return queue.Used();
  }
  std::optional<CapturedFrame> NextFrame() override { return std::nullopt; }
};

class NullDriver final : public CaptureDriver {
 public:
  std::optional<std::vector<Adapter>> FindAllAdapters() override { return std::nullopt; }
  std::unique_ptr<CaptureHandle> Open(const std::string&, const OpenOptions&) override {
    return std::make_unique<NullHandle>();
  }
  MacResult QueryMac(const std::string&, MacAddress&, unsigned long&) override {
    return MacResult::kNotOpened;
  }
};

PlayoutSettings TypicalSettings(std::int32_t copies, bool ipv6) {
  PlayoutSettings settings{};
  settings.IPBitRate = 1000;
  settings.TSPacketSize = 188;
  settings.params.ProtocolMode = 1;
  settings.params.IPLayerVersion = ipv6 ? 1 : 0;
  settings.params.IPPacketSize = kFrame;
  settings.params.ReplicationCount = copies - 1;
  settings.params.ProtocolHeadersSettings.IPHeaderSettings.IPVersion = 4;
  settings.params.ProtocolHeadersSettings.IPHeaderSettings.IPProtocol = 17;
  settings.params.ProtocolHeadersIncrements.IPHeaderIncrements.DestinationIPIncrement[3] = 1;
  return settings;
}

void FramePath(benchmark::State& state, bool ipv6) {
  const auto copies = static_cast<std::int32_t>(state.range(0));
  const PlayoutSettings settings = TypicalSettings(copies, ipv6);
  NullDriver driver;
  const std::uint32_t rtp = IPPLAYOUT_RTP;
  CErrorInsertionManager errors(rtp, platform::ProcessRandom());
  errors.Configure({});
  CZebReplicationMgr replication;
  replication.SetIncrements(settings.params.ProtocolHeadersIncrements, copies - 1);
  replication.SetHeaderSettings(settings.params.ProtocolHeadersSettings);
  PcapRtInterface capture("rpcap://none", 1, driver);
  HeaderChain chain;
  capture.Open();
  capture.SetQueuedMode(1);
  capture.SetPacketsPerQueue(10);
  capture.SetBitRate(AggregateBitRate(settings));
  capture.SetFrameSize(kFrame + 20);
  capture.SetErrorInsertionManager(&errors);
  capture.FilterInclude();
  chain.Build(settings, &errors, &replication, &capture);
  Sender& top = *chain.Top();
  const std::uint32_t room = top.GetHeaderLength();

  CIPDataBuffer ring(1 << 20);
  const std::vector<std::uint8_t> payload(kPayload, 0x47);
  PDU frame(room + kPayload);
  std::uint64_t index = 0;
  std::uint32_t queued = 0;
  for (auto _ : state) {
    state.PauseTiming();
    constexpr std::uint32_t kDatagrams = 500;
    for (std::uint32_t i = 0; i < kDatagrams; ++i) {
      ring.Write(payload.data(), kPayload);
    }
    state.ResumeTiming();
    const std::uint32_t datagrams = copies > 100 ? 5 : kDatagrams;
    for (std::uint32_t i = 0; i < datagrams; ++i) {
      replication.StartDatagram();
      errors.PrepareForPacket(index++);
      ring.ReadPayload(frame, room, 0);
      for (std::int32_t copy = 0; copy < copies; ++copy) {
        top.Send(frame);
        replication.NextCopy();
        if (++queued % 10 == 0) {
          capture.WaitForQueue();
          capture.TransmitQueue();
        }
      }
    }
    state.PauseTiming();
    for (std::uint32_t i = datagrams; i < kDatagrams; ++i) {
      ring.ReadPayload(frame, room, 0);
    }
    state.ResumeTiming();
    state.counters["ns_per_frame"] = benchmark::Counter(
        static_cast<double>(datagrams) * copies,
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  }
}

BENCHMARK_CAPTURE(FramePath, ipv4, false)->Arg(1)->Arg(2)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(FramePath, ipv6, true)->Arg(1)->Arg(1000);

void UdpChecksum(benchmark::State& state) {
  const std::vector<std::uint8_t> datagram(kFrame - 34 + 12, 0xA5);
  for (auto _ : state) {
    benchmark::DoNotOptimize(InternetChecksum(datagram));
  }
}
BENCHMARK(UdpChecksum);

}  // namespace
}  // namespace ipplayout
