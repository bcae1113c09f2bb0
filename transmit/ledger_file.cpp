// SPDX-License-Identifier: MIT
#include "transmit/ledger_file.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

#include "platform/clock.h"
#include "platform/native_thread.h"

namespace ipplayout {
namespace {

// A file shows what has left after so long.
constexpr std::chrono::nanoseconds kBetweenLooks = std::chrono::milliseconds(100);

constexpr struct {
  std::uint32_t did;
  const char* words;
} kDone[] = {
    {IPPLAYOUT_DID_FEC_COLUMN, "FEC of a column"},
    {IPPLAYOUT_DID_FEC_ROW, "FEC of a row"},
    {IPPLAYOUT_DID_LOSE, "lost on purpose"},
    {IPPLAYOUT_DID_DELAY, "delayed on purpose"},
    {IPPLAYOUT_DID_SEND_HELD, "an earlier one, delayed on purpose until here"},
    {IPPLAYOUT_DID_DUPLICATE, "duplicate on purpose"},
    {IPPLAYOUT_DID_CORRUPT, "corrupted on purpose"},
    {IPPLAYOUT_DID_IP_CHECKSUM, "wrong IP checksum on purpose"},
    {IPPLAYOUT_DID_UDP_CHECKSUM, "wrong UDP checksum on purpose"},
    {IPPLAYOUT_DID_LEAVE_OUT, "left out as too late"},
    {IPPLAYOUT_DID_REFUSE, "refused by the destination"},
};

// When it left: by the kernel where that is known. -1: it did not.
std::int64_t DepartureOf(const IpPlayoutDeparture& departure) {
  return departure.StampNs >= 0 ? departure.StampNs : departure.Frame.DepartureNs;
}

std::string LatenessText(const IpPlayoutDeparture& departure) {
  const std::int64_t late = DepartureOf(departure) - departure.PlaceNs;
  const std::int64_t size = std::llabs(late);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%" PRId64 ".%03d us %s (%s)", size / 1000,
                static_cast<int>(size % 1000), late < 0 ? "early" : "late",
                departure.StampNs >= 0 ? "kernel stamp" : "hand-over");
  return text.data();
}

}  // namespace

std::string LedgerComment(const IpPlayoutDeparture& departure) {
  const IpPlayoutRecord& frame = departure.Frame;
  std::string text = "datagram " + std::to_string(frame.Datagram);
  if (frame.Copy > 0) {
    text += ", copy " + std::to_string(frame.Copy);
  }
  text += ": " + (frame.DepartureNs >= 0 ? LatenessText(departure) : std::string("not sent"));
  for (const auto& [did, words] : kDone) {
    if ((frame.Did & did) != 0) {
      text += std::string("; ") + words;
    }
  }
  return text;
}

Opened<LedgerFile> LedgerFile::Open(const std::string& path, const std::string& interface,
                                    Time epoch, DepartureLedger& ledger) {
  auto writer = PcapngWriter::Open(path, {"ipplayout ledger", interface});
  if (writer.value == nullptr) {
    return NotOpened<LedgerFile>(writer.step, writer.error);
  }
  std::unique_ptr<LedgerFile> file(new (std::nothrow)
                                       LedgerFile(std::move(writer.value), epoch, ledger));
  return file == nullptr ? NotOpened<LedgerFile>("get memory", ENOMEM)
                         : Opened<LedgerFile>{std::move(file)};
}

LedgerFile::LedgerFile(std::unique_ptr<PcapngWriter> writer, Time epoch, DepartureLedger& ledger)
    : OsaThread("LedgerFile", 0, OsaThreadPriority::Normal()),
      writer_(std::move(writer)),
      epoch_(epoch),
      ledger_(ledger) {
  StartSilently();
}

LedgerFile::~LedgerFile() {
  StopThread();
}

void LedgerFile::StopThread() {
  Stop();
  waiter_.GiveUpAt(Time::min());
  ledger_.Wake();
  Join();
}

void LedgerFile::Run() {
  platform::GiveUpCapabilities();
  for (;;) {
    ledger_.PrepareToWait();
    if (StopRequested()) {
      return;
    }
    ledger_.WaitUntil(platform::MonotonicNow() + kBetweenLooks);
    Drain();
  }
}

void LedgerFile::Drain() {
  while (const IpPlayoutDeparture* departure = ledger_.Front()) {
    if (!Write(*departure)) {
      left_out_.store(left_out_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    ledger_.Pop();
  }
}

bool LedgerFile::Write(const IpPlayoutDeparture& departure) {
  const auto frame = ledger_.FrameOf(departure);
  const bool left = departure.Frame.DepartureNs >= 0;
  const Time time(left ? DepartureOf(departure) : departure.PlaceNs);
  return writer_->Write({epoch_ + time, frame, frame.size(), LedgerComment(departure)}, waiter_) ==
         0;
}

int LedgerFile::Finish() {
  StopThread();
  Drain();
  return writer_->Finish();
}

}  // namespace ipplayout
