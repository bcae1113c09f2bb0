#include "payload/data_pump.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "payload/data_buffer.h"
#include "payload/error_insertion_manager.h"
#include "protocol/ethernet_layer.h"
#include "protocol/parametric_manager.h"
#include "protocol/replication_manager.h"
#include "tests/support/blocked_call.h"
#include "tests/support/bytes.h"
#include "tests/support/fake_driver.h"
#include "tests/support/fake_waiter.h"
#include "transmit/pcap_rt_interface.h"
#include "transmit/trace_log.h"

namespace ipplayout {
namespace {

using testing::ElementsAre;

// Stands for the layers from RTP to IPv4: 40 bytes of header that it leaves alone.
class TopLayer final : public Sender {
 public:
  explicit TopLayer(Sender* next) : next_(next) {}

  bool Send(PDU& frame) override {
    if (frames == accept) {
      return false;
    }
    if (on_send) {
      on_send(frames);
    }
    const bool sent = next_->Send(frame);
    ++frames;
    return sent;
  }
  std::uint32_t GetHeaderLength() const override { return 40 + next_->GetHeaderLength(); }

  std::function<void(int)> on_send;  // with the number of the frame
  std::atomic<int> frames{0};
  int accept = std::numeric_limits<int>::max();

 private:
  Sender* next_;
};

// A pump whose batches are so large that only the flush at the end of a run transmits.
class DataPumpTest : public testing::Test {
 protected:
  static constexpr std::uint32_t kPayload = 1316;

  DataPumpTest() {
    OsaTraceSilent = true;
    buffer_.SetPacketSize(188);
    interface_.SetWaiter(&waiter_);
    interface_.Open();
    interface_.SetQueuedMode(1);
    interface_.SetPacketsPerQueue(1000);
    interface_.SetBitRate(1e9);
    EthernetFlowSpec spec;
    spec.errors = &errors_;
    ethernet_ = std::make_unique<EthernetDataFlowOut>(spec, &interface_);
    ethernet_->SetReplicationManager(&replication_);
    top_ = std::make_unique<TopLayer>(ethernet_.get());
    parameters_.SetThreadPriority(-1);
    pump_.SetPayloadSource(&buffer_);
    pump_.SetTopLayer(top_.get());
    pump_.SetCaptureInterface(&interface_);
    pump_.SetErrorManager(&errors_);
    pump_.SetReplicationManager(&replication_);
    pump_.SetParametricManager(&parameters_);
    pump_.SetDatagramSize(54 + kPayload);
    pump_.SetTsPacketSize(188);
  }
  ~DataPumpTest() override {
    buffer_.Terminate();
    pump_.Stop();
    pump_.Join();
    OsaTraceSilent = false;
  }

  void Start() {
    pump_.Join();
    buffer_.Reset();
    ASSERT_TRUE(interface_.FilterInclude());
    ASSERT_TRUE(pump_.Start());
  }
  // Payload bytes count up modulo 251, so that no two payloads are alike.
  void Write(std::uint32_t bytes) {
    Bytes data(bytes);
    for (std::uint8_t& byte : data) {
      byte = static_cast<std::uint8_t>(written_++ % 251);
    }
    ASSERT_TRUE(buffer_.Write(data.data(), bytes));
  }
  void Finish() {
    buffer_.Terminate();
    pump_.WaitUntilComplete();
    pump_.Join();
  }
  PlayoutStatistics Statistics() {
    PlayoutStatistics statistics;
    EXPECT_TRUE(pump_.GetStatistics(&statistics));
    return statistics;
  }
  // The payload of all frames on the wire is the stream from its start on, nothing missing.
  void ExpectStream(std::uint64_t bytes) {
    std::uint64_t position = 0;
    for (const SentFrame& frame : driver_.Sent()) {
      for (std::size_t i = 54; i < frame.bytes.size(); ++i) {
        ASSERT_EQ(frame.bytes[i], position++ % 251);
      }
    }
    EXPECT_EQ(position, bytes);
  }

  FakeDriver driver_;
  FakeWaiter waiter_;
  CIPDataBuffer buffer_{1 << 20};
  CErrorInsertionManager errors_{[] { return true; }};
  CZebReplicationMgr replication_;
  CZebParametricManager parameters_;
  PcapRtInterface interface_{"rpcap://fake", 1, driver_};
  std::unique_ptr<EthernetDataFlowOut> ethernet_;
  std::unique_ptr<TopLayer> top_;
  ZEBIPDataPump pump_;
  std::uint64_t written_ = 0;
};

TEST_F(DataPumpTest, CutsTheStreamAndCountsIt) {
  const struct {
    std::uint32_t packet_size;  // in the ring; 0 for a raw stream
    std::uint64_t ts_packets;
    std::uint64_t ts_bytes;
    std::uint64_t ts_packet_size;
  } cases[] = {
      {188, 53, 10000, 188},  // 53.2
      {192, 52, 9791, 188},   // 52.08; 188 of every 192 bytes
      {0, 0, 10000, 0},
  };
  for (const auto& c : cases) {
    buffer_.SetPacketSize(c.packet_size);
    pump_.SetRawPayload(c.packet_size == 0);
    Start();
    Write(10000);
    Finish();
    const PlayoutStatistics statistics = Statistics();
    EXPECT_EQ(statistics.DatagramsSent, 8U);
    EXPECT_EQ(statistics.BytesSent, 7 * 1370U + 842U);
    EXPECT_EQ(statistics.DatagramSize, 1370U);
    EXPECT_EQ(statistics.TSPacketsSent, c.ts_packets);
    EXPECT_EQ(statistics.TSBytesSent, c.ts_bytes);
    EXPECT_EQ(statistics.TSPacketSize, c.ts_packet_size);
    EXPECT_EQ(pump_.GetErrorCode(), 0);
  }
  ExpectStream(30000);
  std::vector<std::size_t> lengths;
  for (const SentFrame& frame : driver_.Sent()) {
    lengths.push_back(frame.bytes.size());
  }
  lengths.resize(9);  // a shortened tail does not shorten what follows
  EXPECT_THAT(lengths, ElementsAre(1370, 1370, 1370, 1370, 1370, 1370, 1370, 842, 1370));
}

TEST_F(DataPumpTest, CopiesFollowEachOtherAndCountOnce) {
  replication_.SetIncrements({}, 2);
  std::vector<std::size_t> batches;
  top_->on_send = [&](int) { batches.push_back(driver_.Batches()); };
  buffer_.SetStartThreshold(1 << 19);  // so that the pump knows the last datagram as such
  Start();
  Write(3 * kPayload);
  Finish();
  EXPECT_EQ(Statistics().DatagramsSent, 3U);
  EXPECT_EQ(Statistics().BytesSent, 3 * 1370U);
  EXPECT_EQ(Statistics().TSBytesSent, 3 * kPayload);
  const std::vector<SentFrame> sent = driver_.Sent();
  ASSERT_EQ(sent.size(), 9U);
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i].bytes[54], i / 3 * kPayload % 251);
  }
  EXPECT_EQ(batches, std::vector<std::size_t>(9, 0));  // the flush follows the last copy
}

TEST_F(DataPumpTest, AnEndFoundWhileWaitingForDataStillFlushes) {
  Start();
  Write(2 * kPayload);
  while (top_->frames < 2) {
    std::this_thread::yield();
  }
  EXPECT_TRUE(driver_.Sent().empty());
  Finish();
  ExpectStream(2 * kPayload);
}

TEST_F(DataPumpTest, ALostDatagramCountsAsSentAndAsLost) {
  errors_.GeneratePacketLoss();
  Start();
  Write(2 * kPayload + 100);
  Finish();
  const PlayoutStatistics statistics = Statistics();
  EXPECT_EQ(statistics.DatagramsSent, 3U);
  EXPECT_EQ(statistics.LostPackets, 1U);
  EXPECT_EQ(statistics.LostBytes, std::int64_t{kPayload});
  EXPECT_EQ(driver_.Sent().size(), 2U);
}

TEST_F(DataPumpTest, ARefusedFrameEndsTheRunUntilTheNextStart) {
  top_->accept = 2;
  Start();
  Write(5 * kPayload);
  pump_.WaitUntilComplete();
  EXPECT_EQ(pump_.GetErrorCode(), ZEBIPDataPump::kFailed);
  EXPECT_EQ(Statistics().DatagramsSent, 2U);
  EXPECT_TRUE(driver_.Sent().empty());  // nothing is flushed
  top_->accept = 1000;
  Start();
  EXPECT_EQ(pump_.GetErrorCode(), 0);
  Finish();
}

TEST_F(DataPumpTest, AStopLetsOneMoreDatagramOut) {
  top_->on_send = [this](int frame) {
    if (frame == 2) {
      pump_.Stop();
    }
  };
  Start();
  Write(10 * kPayload);
  pump_.WaitUntilComplete();
  ExpectStream(4 * kPayload);
  EXPECT_EQ(pump_.GetErrorCode(), 0);
}

TEST_F(DataPumpTest, APauseHoldsBetweenDatagramsAndAStopEndsIt) {
  std::promise<void> asked;
  top_->on_send = [&](int frame) {
    if (frame == 1) {
      pump_.Pause(true);
      asked.set_value();
    }
  };
  for (const bool stop : {false, true}) {
    top_->frames = 0;
    asked = std::promise<void>();
    Start();
    Write(6 * kPayload);
    buffer_.Terminate();
    asked.get_future().wait();
    auto end = OnAnotherThread([this] { pump_.WaitUntilComplete(); });
    EXPECT_TRUE(Blocks(end));
    EXPECT_EQ(top_->frames, 2);
    stop ? pump_.Stop() : pump_.Pause(false);
    end.get();
    EXPECT_EQ(top_->frames, stop ? 3 : 6);
  }
  ExpectStream(9 * kPayload);
  top_->on_send = nullptr;
  Start();  // not paused
  Write(kPayload);
  Finish();
}

TEST_F(DataPumpTest, ARunIsInProgressFromStartOn) {
  for (int run = 0; run < 1000; ++run) {
    Start();
    EXPECT_FALSE(pump_.IsComplete());
    EXPECT_EQ(Statistics().DatagramsSent, 0U);
    Write(3 * kPayload);
    buffer_.Terminate();
    pump_.WaitUntilComplete();
    EXPECT_TRUE(pump_.IsComplete());
    ASSERT_EQ(Statistics().DatagramsSent, 3U) << run;
  }
  ExpectStream(3000 * kPayload);
}

TEST_F(DataPumpTest, SignalsTheEventsOfTheHostAndNoOthers) {
  const auto signals = [](int event) {
    eventfd_t count = 0;
    return eventfd_read(event, &count) == 0 ? count : 0;
  };
  const int plain = eventfd(0, EFD_NONBLOCK);
  const int twice = eventfd(0, EFD_NONBLOCK);
  const int withdrawn = eventfd(0, EFD_NONBLOCK);
  const int full = eventfd(0, 0);  // a write would block
  constexpr eventfd_t kMost = std::numeric_limits<eventfd_t>::max() - 1;
  eventfd_write(full, kMost);
  const int closed = eventfd(0, 0);
  close(closed);
  for (const int event : {0, -1, closed, full, withdrawn, twice, twice, plain}) {
    pump_.AddCompletionEvent(event);
  }
  pump_.WithdrawCompletionEvent(withdrawn);
  pump_.WithdrawCompletionEvent(withdrawn);  // is not there any more
  pump_.WithdrawCompletionEvent(twice);
  for (int run = 0; run < 2; ++run) {
    Start();
    EXPECT_EQ(signals(plain), 0U);
    Finish();
    EXPECT_EQ(signals(plain), 1U);
  }
  EXPECT_EQ(signals(twice), 2U);  // the library reads no event
  EXPECT_EQ(signals(withdrawn), 0U);
  EXPECT_EQ(signals(full), kMost);
  for (const int event : {plain, twice, withdrawn, full}) {
    close(event);
  }
}

}  // namespace
}  // namespace ipplayout
