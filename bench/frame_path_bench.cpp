// SPDX-License-Identifier: MIT
// What the data pump does to one frame of 1,370 bytes: payload out of the ring, headers and
// checksums of all layers, time stamp and queueing. The adapter below takes everything at no cost.
// And what a playout of the many does.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "control/datagram_layout.h"
#include "control/header_chain.h"
#include "ipplayout/playouts.h"
#include "payload/data_buffer.h"
#include "payload/error_insertion_manager.h"
#include "payload/fec_feed.h"
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

// Layers, what they ask, and an adapter without cost.
struct Path {
  explicit Path(const PlayoutSettings& settings)
      : errors(rtp, platform::ProcessRandom()), capture("rpcap://none", 1, driver) {
    errors.Configure({});
    replication.SetIncrements(settings.params.ProtocolHeadersIncrements,
                              settings.params.ReplicationCount);
    replication.SetHeaderSettings(settings.params.ProtocolHeadersSettings);
    capture.Open();
    capture.SetQueuedMode(1);
    capture.SetPacketsPerQueue(10);
    capture.SetBitRate(AggregateBitRate(settings));
    capture.SetFrameSize(kFrame + 20);
    capture.SetErrorInsertionManager(&errors);
    capture.FilterInclude();
    chain.Build(settings, &errors, &replication, &capture);
  }

  const std::uint32_t rtp = IPPLAYOUT_RTP;
  NullDriver driver;
  CErrorInsertionManager errors;
  CZebReplicationMgr replication;
  PcapRtInterface capture;
  HeaderChain chain;
};

void FramePath(benchmark::State& state, bool ipv6) {
  const auto copies = static_cast<std::int32_t>(state.range(0));
  Path path(TypicalSettings(copies, ipv6));
  auto& [rtp, driver, errors, replication, capture, chain] = path;
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

// FEC of state.range(0) columns by state.range(1) rows, with parity, headers and checksums of the
// FEC datagrams; the time is that of a frame of the stream. 0 columns: none.
void FecPath(benchmark::State& state, bool protects_rows) {
  const auto columns = static_cast<std::uint32_t>(state.range(0));
  const FecMatrix matrix{columns == 0 ? 1 : columns, static_cast<std::uint32_t>(state.range(1)),
                         protects_rows, true};
  Path media(TypicalSettings(1, false));
  Path fec(TypicalSettings(1, false));
  Sender& top = *media.chain.Top();
  const std::uint32_t room = top.GetHeaderLength();
  const FecPort port{fec.chain.Top(), &fec.replication, &fec.errors};
  FecFeed feed(matrix, room, kPayload, {port, port});

  CIPDataBuffer ring(1 << 20);
  const std::vector<std::uint8_t> payload(kPayload, 0x47);
  PDU frame(room + kPayload);
  std::uint64_t index = 0;
  constexpr std::uint32_t kDatagrams = 500;
  const auto send = [](Path& path, Sender& to, PDU& what, std::uint64_t number) {
    path.replication.StartDatagram();
    path.errors.PrepareForPacket(number);
    to.Send(what);
    if (number % 10 == 9) {
      path.capture.WaitForQueue();
      path.capture.TransmitQueue();
    }
  };
  for (auto _ : state) {
    state.PauseTiming();
    for (std::uint32_t i = 0; i < kDatagrams; ++i) {
      ring.Write(payload.data(), kPayload);
    }
    state.ResumeTiming();
    for (std::uint32_t i = 0; i < kDatagrams; ++i) {
      ring.ReadPayload(frame, room, 0);
      send(media, top, frame, index++);
      if (columns == 0) {
        continue;
      }
      feed.AddMedia(frame);
      while (feed.Next()) {
        send(fec, *port.top, feed.Frame(), feed.Index());
      }
    }
    state.counters["ns_per_frame"] = benchmark::Counter(
        kDatagrams, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  }
}

BENCHMARK_CAPTURE(FecPath, columns, false)
    ->Args({0, 4})
    ->Args({1, 4})
    ->Args({10, 5})
    ->Args({20, 5})
    ->Args({5, 20});
BENCHMARK_CAPTURE(FecPath, rows_too, true)->Args({5, 4})->Args({10, 5})->Args({5, 20});

enum class Ledger { kNone, kRecords, kFile };

// All that a playout of the many takes for a frame: builder and transmitter in virtual time,
// written to nowhere, with or without a ledger. The time is that of all threads.
void SchedulePath(benchmark::State& state, Ledger ledger) {
  constexpr std::uint32_t kDatagrams = 20'000;
  const std::vector<std::uint8_t> data(std::size_t{kPayload} * 100, 0x47);
  IpPlayoutSettings settings;
  IpPlayoutDefaults(&settings);
  settings.To = IPPLAYOUT_TO_FILE;
  std::snprintf(settings.Destination, sizeof settings.Destination, "/dev/null");
  settings.BitRate = 100;
  settings.LedgerFrames = ledger == Ledger::kNone ? 0 : kDatagrams;
  IpPlayout* const playout = IpPlayoutOpen();
  for (auto _ : state) {
    state.PauseTiming();
    IpPlayoutConfigure(playout, &settings);
    IpPlayoutWriteLedger(playout, ledger == Ledger::kFile ? "/dev/null" : nullptr);
    IpPlayoutStart(&playout, 1, 0);
    state.ResumeTiming();
    for (std::uint32_t i = 0; i < kDatagrams; i += 100) {
      IpPlayoutWrite(playout, data.data(), data.size());
    }
    IpPlayoutEnd(playout);
    if (IpPlayoutWait(playout, -1) != IPPLAYOUT_DONE) {
      state.SkipWithError(IpPlayoutError());
      break;
    }
    IpPlayoutStop(playout);
  }
  IpPlayoutClose(playout);
  state.counters["ns_per_frame"] = benchmark::Counter(
      kDatagrams, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK_CAPTURE(SchedulePath, no_ledger, Ledger::kNone)->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(SchedulePath, records, Ledger::kRecords)->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(SchedulePath, file, Ledger::kFile)->MeasureProcessCPUTime();

void UdpChecksum(benchmark::State& state) {
  const std::vector<std::uint8_t> datagram(kFrame - 34 + 12, 0xA5);
  for (auto _ : state) {
    benchmark::DoNotOptimize(InternetChecksum(datagram));
  }
}
BENCHMARK(UdpChecksum);

}  // namespace
}  // namespace ipplayout
