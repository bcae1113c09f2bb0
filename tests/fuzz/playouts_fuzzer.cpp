// SPDX-License-Identifier: MIT
// Calls the functions of many playouts in any order from two threads at once, on a few handles that
// both use: files in virtual time, UDP sockets and the loopback adapter. Whatever was called, the
// calls return what the header says, a close releases whoever blocks, and after a stop every frame
// that was built has been accounted for.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "ipplayout/playouts.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

struct Totals {
  std::atomic<std::uint64_t> calls{0}, starts{0}, refused{0}, compared{0}, frames{0};
};
Totals totals;
int log_fd = STDERR_FILENO;  // the fuzzer may close the real one
std::string folder;

void PrintTotals() {
  ::dprintf(log_fd, "%lu calls: %lu starts, %lu refused ones, %lu frames of %lu runs compared\n",
            totals.calls.load(), totals.starts.load(), totals.refused.load(), totals.frames.load(),
            totals.compared.load());
}

void CountCall() {
  constexpr std::uint64_t kReportEvery = 250'000;
  if (++totals.calls % kReportEvery == 0) {
    PrintTotals();
  }
}

void Require(bool holds, const char* what) {
  if (!holds) {
    ::dprintf(log_fd, "does not hold: %s\n", what);
    std::abort();
  }
}

template <typename T, std::size_t N>
T OneOf(FuzzInput& input, const T (&values)[N]) {
  return values[input.Number(1) % N];
}

// What may come back besides DONE and BAD_PLAYOUT. True when it was DONE.
bool Check(int result, std::initializer_list<int> allowed, const char* what) {
  CountCall();
  if (result == IPPLAYOUT_DONE) {
    return true;
  }
  bool known = result == IPPLAYOUT_BAD_PLAYOUT;
  for (const int code : allowed) {
    known = known || result == code;
  }
  if (!known) {
    ::dprintf(log_fd, "%s returns %d: %s\n", what, result, IpPlayoutError());
    std::abort();
  }
  Require(std::strlen(IpPlayoutError()) > 0, "a refusal has a sentence");
  return false;
}

// A handle that both threads use, also when it is closed.
struct Slot {
  std::atomic<IpPlayout*> playout{nullptr};
  std::atomic<bool> plain{true};  // one frame for each datagram, none of them damaged
};
constexpr std::size_t kSlots = 3;
using Slots = std::array<Slot, kSlots>;

void SetDestination(FuzzInput& input, IpPlayoutSettings& settings) {
  static constexpr std::uint32_t kKinds[] = {IPPLAYOUT_TO_FILE, IPPLAYOUT_TO_FILE,
                                             IPPLAYOUT_TO_SOCKET, IPPLAYOUT_TO_SOCKET,
                                             IPPLAYOUT_TO_ADAPTER};
  settings.To = OneOf(input, kKinds);
  const std::string file = folder + "/" + std::to_string(input.Number(1) % 2);
  const char* const usual = settings.To == IPPLAYOUT_TO_ADAPTER ? "lo" : "";
  const char* const names[] = {usual, usual, usual, "lo", "nowhere"};
  const std::string name =
      settings.To == IPPLAYOUT_TO_FILE && input.Number(1) % 16 != 7 ? file : OneOf(input, names);
  std::snprintf(settings.Destination, sizeof settings.Destination, "%s", name.c_str());
  ProtocolHeadersSettings& headers = settings.Params.ProtocolHeadersSettings;
  headers.IPHeaderSettings.DestinationIP[0] = input.Number(1) % 8 == 5 ? 10 : 127;
  headers.IPHeaderSettings.DestinationIP[3] = 1;
  headers.UDPHeaderSettings.DestinationPort = 5004;
}

void SetTimes(FuzzInput& input, IpPlayoutSettings& settings) {
  static constexpr double kRates[] = {0, 0.001, 5, 100, 950, 1e6};
  static constexpr std::uint32_t kRings[] = {1 << 16, 1 << 17, 1 << 20};
  static constexpr std::uint32_t kStarts[] = {0, 0, 1316, 1 << 16};
  static constexpr std::int64_t kTolerances[] = {1'000'000, 0, 100'000, 1'000'000'000};
  static constexpr double kCatchUps[] = {1.25, 2, 1.0000001, 1000};
  settings.BitRate = OneOf(input, kRates);
  settings.RingBytes = OneOf(input, kRings);
  settings.StartBytes = OneOf(input, kStarts);
  settings.Late = input.Number(1) % 4;
  settings.Refused = input.Number(1) % 2;
  settings.LateAfterNs = OneOf(input, kTolerances);
  settings.CatchUp = OneOf(input, kCatchUps);
  settings.Precision = input.Number(1) % 2;
  settings.Stamps = input.Number(1) % 2;
  settings.LedgerFrames = input.Number(1) * 4;
}

// One value that is not allowed, or none.
void Spoil(FuzzInput& input, IpPlayoutSettings& settings) {
  switch (input.Number(1) % 64) {
    case 1:
      settings.BitRate = -1;
      break;
    case 2:
      settings.RingBytes = 1;
      break;
    case 3:
      settings.StartBytes = 1 << 30;
      break;
    case 4:
      settings.LateAfterNs = -1;
      break;
    case 5:
      settings.CatchUp = 1;
      break;
    case 6:
      settings.To = IPPLAYOUT_TO_SOCKET + 1;
      break;
    case 7:
      std::memset(settings.Destination, 'x', sizeof settings.Destination);
      break;
    case 8:
      --settings.Size;
      break;
    default:
      break;
  }
}

void SetShape(FuzzInput& input, IpPlayoutSettings& settings) {
  const std::uint32_t flags = input.Number(2);
  const auto flag = [flags](unsigned bit) { return (flags >> bit) & 1; };
  settings.Params.ProtocolMode = flag(0);
  settings.Params.TSPacketCount = 1 + input.Number(1) % 80;
  settings.Params.PacketSizeMode = flag(1) & flag(2) ? 0 : 1;
  settings.Params.ReplicationCount = flag(3) & flag(4) ? static_cast<int>(input.Number(1) % 4) : 0;
  settings.CopiesShareTime = flag(5);
  settings.FecColumns = flag(6) & flag(7) ? input.Number(1) % 21 : 0;
  settings.FecRows = 4 + input.Number(1) % 17;
  settings.FecProtectsRows = flag(8);
  settings.FecStaggered = flag(9);
  settings.Errors.ErrInsertionEnable = flag(10) & flag(11);
  settings.Errors.PacketLossEnabled = flag(12);
  settings.Errors.NumPacketLoss = 1;
  settings.Errors.PacketLossRange = 1 + input.Number(1);
  settings.Errors.SequenceErrorEnabled = flag(13);
  settings.Errors.NumSequenceError = 1;
  settings.Errors.SequenceErrorRange = 1 + input.Number(1);
  settings.Errors.SequenceErrorDistance = input.Number(1);
  settings.Parametric.BurstMode = flag(14);
  settings.Parametric.BurstValueType = IPPLAYOUT_BURST_BY_SIZE;
  settings.Parametric.BurstSize = input.Number(1);
  settings.Parametric.JitterEnabled = flag(15);
  settings.Parametric.JitterPeriod = static_cast<float>(input.Number(1));
  settings.Parametric.JitterDistributionType = input.Number(1) % 5;
}

// One of the two threads.
class Script {
 public:
  Script(Slots& slots, FuzzInput input) : slots_(slots), input_(input) {}

  void OpenAll() {
    for (Slot& slot : slots_) {
      Open(slot);
    }
  }
  void Run() {
    while (!input_.IsEmpty()) {
      Step();
    }
  }

 private:
  void Step();
  void Open(Slot& slot);
  void Configure(Slot& slot);
  void Mark(IpPlayout* playout);
  void Start(IpPlayout* playout);
  void Write(IpPlayout* playout);
  void Read(IpPlayout* playout);
  void Damage(Slot& slot);

  Slots& slots_;
  FuzzInput input_;
  std::uint64_t last_mark_ = 0;
};

void Script::Open(Slot& slot) {
  IpPlayout* const opened = IpPlayoutOpen();
  CountCall();
  Require(opened != nullptr, "there is memory for a playout");
  slot.plain.store(true);
  Check(IpPlayoutClose(slot.playout.exchange(opened)), {IPPLAYOUT_BAD_DESTINATION}, "Close");
  Configure(slot);
}

void Script::Configure(Slot& slot) {
  IpPlayoutSettings settings;
  IpPlayoutDefaults(&settings);
  SetDestination(input_, settings);
  SetTimes(input_, settings);
  if (input_.Number(1) % 2 == 0) {
    slot.plain.store(false);
    SetShape(input_, settings);
  }
  Spoil(input_, settings);
  const bool null = input_.Number(1) % 64 == 9;
  Check(IpPlayoutConfigure(slot.playout, null ? nullptr : &settings),
        {IPPLAYOUT_BAD_VALUE, IPPLAYOUT_BAD_STATE}, "Configure");
  static constexpr const char* kLedgers[] = {nullptr,     "",          "/dev/null",
                                             "/dev/null", "/dev/full", "/nowhere/ledger.pcapng"};
  Check(IpPlayoutWriteLedger(slot.playout, OneOf(input_, kLedgers)), {IPPLAYOUT_BAD_STATE},
        "WriteLedger");
  if (settings.BitRate == 0) {
    Mark(slot.playout);
  }
}

// Most of them are far ahead of the one before.
void Script::Mark(IpPlayout* playout) {
  static constexpr std::uint64_t kEdges[] = {0, ~std::uint64_t{0}, 1ULL << 63};
  static constexpr std::int64_t kTimes[] = {0, 1LL << 60, INT64_MAX, INT64_MIN, -1};
  const bool edge = input_.Number(1) % 16 == 3;
  last_mark_ += input_.Number(1) * 256;
  const std::uint64_t offset = edge ? OneOf(input_, kEdges) : last_mark_;
  const std::int64_t time =
      edge ? OneOf(input_, kTimes) : static_cast<std::int64_t>(last_mark_) * 10;
  Check(IpPlayoutMark(playout, offset, time),
        {IPPLAYOUT_BAD_VALUE, IPPLAYOUT_BAD_STATE, IPPLAYOUT_NO_RESOURCES}, "Mark");
}

// Of one, or of all at once. Many a start finds the playout running.
void Script::Start(IpPlayout* playout) {
  static constexpr std::int64_t kStarts[] = {1, -1, INT64_MAX, INT64_MIN, 1LL << 60};
  if (input_.Number(1) % 4 != 0) {
    Check(IpPlayoutStop(playout), {IPPLAYOUT_BAD_DESTINATION}, "Stop");
    last_mark_ = 0;
    Mark(playout);
  }
  const std::uint32_t how = input_.Number(1);
  std::int64_t start = 0;
  if (how % 4 == 1) {
    start = IpPlayoutNow() + (static_cast<std::int64_t>(how) - 128) * 10'000;
  } else if (how % 16 == 2) {
    start = OneOf(input_, kStarts);
  }
  std::array<IpPlayout*, kSlots> all{playout};
  const std::size_t count = how % 8 >= 6 ? all.size() : 1;
  for (std::size_t i = 0; count > 1 && i < count; ++i) {
    all[i] = slots_[i].playout;
  }
  const bool null = how == 255;
  const bool started =
      Check(IpPlayoutStart(null ? nullptr : all.data(), count, start),
            {IPPLAYOUT_BAD_VALUE, IPPLAYOUT_BAD_STATE, IPPLAYOUT_BAD_DESTINATION}, "Start");
  ++(started ? totals.starts : totals.refused);
}

void Script::Write(IpPlayout* playout) {
  static const std::vector<std::uint8_t> data(1 << 17, 0x47);
  const std::uint32_t how = input_.Number(1);
  const std::size_t bytes = how >= 250 ? data.size() : input_.Number(2) % 20'000;
  const void* const from = how == 249 ? nullptr : data.data();
  if (how % 8 == 1) {
    Check(IpPlayoutWrite(playout, from, bytes),
          {IPPLAYOUT_BAD_VALUE, IPPLAYOUT_BAD_STATE, IPPLAYOUT_ENDED}, "Write");
    return;
  }
  std::size_t taken = 0;
  Check(IpPlayoutTryWrite(playout, from, bytes, how == 248 ? nullptr : &taken),
        {IPPLAYOUT_BAD_VALUE, IPPLAYOUT_BAD_STATE, IPPLAYOUT_ENDED}, "TryWrite");
  Require(taken <= bytes, "no more is taken than was given");
}

void Script::Read(IpPlayout* playout) {
  PlayoutStatistics statistics;
  IpPlayoutTiming timing;
  std::array<IpPlayoutRecord, 32> records;
  std::array<IpPlayoutDeparture, 32> departures;
  std::size_t taken = 0;
  switch (input_.Number(1) % 8) {
    case 0:
      Check(IpPlayoutGetStatistics(playout, &statistics), {IPPLAYOUT_BAD_STATE}, "GetStatistics");
      break;
    case 1:
      Check(IpPlayoutGetTiming(playout, &timing), {IPPLAYOUT_BAD_STATE}, "GetTiming");
      break;
    case 2:
      Check(IpPlayoutGetTiming(playout, nullptr), {IPPLAYOUT_BAD_VALUE}, "GetTiming of nothing");
      break;
    case 3:
      IpPlayoutSeed(playout);
      CountCall();
      break;
    case 4:
      IpPlayoutEndEvent(playout);
      CountCall();
      break;
    case 5:
      Check(IpPlayoutReadDepartures(playout, departures.data(), input_.Number(1) % 33, &taken),
            {IPPLAYOUT_BAD_STATE}, "ReadDepartures");
      Require(taken <= departures.size(), "no more departures than there is room for");
      break;
    default:
      Check(IpPlayoutReadLedger(playout, records.data(), input_.Number(1) % 33, &taken),
            {IPPLAYOUT_BAD_STATE}, "ReadLedger");
      Require(taken <= records.size(), "no more records than there is room for");
      break;
  }
}

void Script::Damage(Slot& slot) {
  static constexpr std::uint32_t kCounts[] = {1, 3, 1'000'000, 0, 1'000'001};
  static constexpr std::uint32_t kKinds[] = {IPPLAYOUT_DID_LOSE,
                                             IPPLAYOUT_DID_DELAY,
                                             IPPLAYOUT_DID_IP_CHECKSUM,
                                             IPPLAYOUT_DID_UDP_CHECKSUM,
                                             0,
                                             ~0U};
  slot.plain.store(false);
  const std::uint32_t kind = OneOf(input_, kKinds);
  Check(IpPlayoutDamage(slot.playout, kind, OneOf(input_, kCounts)),
        {IPPLAYOUT_BAD_VALUE, IPPLAYOUT_BAD_STATE, IPPLAYOUT_ENDED}, "Damage");
}

void Script::Step() {
  const std::uint32_t what = input_.Number(1);
  Slot& slot = slots_[input_.Number(1) % kSlots];
  IpPlayout* const playout = slot.playout;
  if (what < 20) {
    Open(slot);
  } else if (what < 30) {
    Configure(slot);
  } else if (what < 60) {
    Mark(playout);
  } else if (what < 90) {
    Start(playout);
  } else if (what < 160) {
    Write(playout);
  } else if (what < 170) {
    Check(IpPlayoutEnd(playout), {IPPLAYOUT_BAD_STATE}, "End");
  } else if (what < 185) {
    const std::int64_t timeout = what % 4 == 0 ? 1'000'000 : 0;
    Check(IpPlayoutWait(playout, timeout),
          {IPPLAYOUT_BAD_STATE, IPPLAYOUT_NOT_YET, IPPLAYOUT_ENDED, IPPLAYOUT_BAD_DESTINATION},
          "Wait");
  } else if (what < 197) {
    Check(IpPlayoutPause(playout, what % 5), {IPPLAYOUT_BAD_STATE, IPPLAYOUT_BAD_VALUE}, "Pause");
  } else if (what < 210) {
    Check(IpPlayoutStop(playout), {IPPLAYOUT_BAD_DESTINATION}, "Stop");
  } else if (what < 220) {
    Check(IpPlayoutClose(playout), {IPPLAYOUT_BAD_DESTINATION}, "Close");
  } else if (what < 235) {
    Damage(slot);
  } else {
    Read(playout);
  }
}

// Everything that was built left, was left out, was refused or was discarded.
void CompareCounts(const Slot& slot) {
  PlayoutStatistics statistics;
  IpPlayoutTiming timing;
  IpPlayout* const playout = slot.playout;
  if (!slot.plain.load() || IpPlayoutGetTiming(playout, &timing) != IPPLAYOUT_DONE ||
      IpPlayoutGetStatistics(playout, &statistics) != IPPLAYOUT_DONE) {
    return;
  }
  const std::uint64_t frames =
      timing.OnTime + timing.Late + timing.LeftOut + timing.NotSent + timing.Discarded;
  Require(statistics.DatagramsSent == frames, "every frame that was built is accounted for");
  totals.frames += frames;
  ++totals.compared;
}

void EndAll(Slots& slots) {
  for (Slot& slot : slots) {
    if (Check(IpPlayoutStop(slot.playout), {IPPLAYOUT_BAD_DESTINATION}, "Stop")) {
      Require(IpPlayoutWait(slot.playout, 0) != IPPLAYOUT_NOT_YET, "a stop ends the playout");
      CompareCounts(slot);
    }
  }
}

}  // namespace

extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  log_fd = ::dup(STDERR_FILENO);
  char name[] = "/tmp/playouts_fuzzer.XXXXXX";
  folder = ::mkdtemp(name);
  // A network of our own, with loopback alone.
  if (::unshare(CLONE_NEWNET) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
    std::perror("playouts_fuzzer: unshare");
    std::exit(1);
  }
  ifreq up{};
  std::strcpy(up.ifr_name, "lo");
  up.ifr_flags = IFF_UP;
  const int any_socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  if (::ioctl(any_socket, SIOCSIFFLAGS, &up) != 0) {
    std::perror("playouts_fuzzer: lo up");
    std::exit(1);
  }
  ::close(any_socket);
  std::atexit([] {
    PrintTotals();
    for (const char* file : {"/0", "/1"}) {
      ::unlink((folder + file).c_str());
    }
    ::rmdir(folder.c_str());
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  Slots slots;
  Script first(slots, FuzzInput(bytes.first(size / 2)));
  Script second(slots, FuzzInput(bytes.subspan(size / 2)));
  first.OpenAll();
  std::atomic<int> running{2};
  const auto run = [&running](Script& script) {
    script.Run();
    --running;
  };
  std::thread threads[] = {std::thread(run, std::ref(first)), std::thread(run, std::ref(second))};
  // One that blocks in a write for good is released by a stop, and by a close in the end.
  for (int patience = 50; running.load() > 0; --patience) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (patience <= 0) {
      for (Slot& slot : slots) {
        Check(IpPlayoutStop(slot.playout), {IPPLAYOUT_BAD_DESTINATION}, "Stop");
      }
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EndAll(slots);
  for (Slot& slot : slots) {
    Check(IpPlayoutClose(slot.playout), {IPPLAYOUT_BAD_DESTINATION}, "Close");
    Require(IpPlayoutStop(slot.playout) == IPPLAYOUT_BAD_PLAYOUT, "what is closed is not open");
  }
  return 0;
}
