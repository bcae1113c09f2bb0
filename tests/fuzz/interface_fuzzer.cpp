// SPDX-License-Identifier: MIT
// Calls every exported function in any order with any arguments, on an adapter that now and then
// refuses. Whatever was called, the calls return, a stop ends the playout, and a playout without a
// refusal sends every frame that its statistics count.
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "ipplayout/ipplayout.h"
#include "tests/fuzz/interface_arguments.h"
#include "tests/support/fake_driver.h"

using namespace ipplayout;

namespace {

struct Totals {
  std::uint64_t calls = 0, starts = 0, refused = 0, compared = 0, frames = 0;
};
Totals totals;
int log_fd = STDERR_FILENO;  // the fuzzer closes the real one: the library prints on it

void PrintTotals() {
  ::dprintf(
      log_fd,
      "%lu calls: %lu starts, %lu refused ones, %lu frames sent, counts of %lu playouts compared\n",
      totals.calls, totals.starts, totals.refused, totals.frames, totals.compared);
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

FakeDriver& TheDriver() {
  static FakeDriver& driver = *[] {
    auto* made = new FakeDriver;
    made->keep_sent = false;
    AdapterAddress ipv4{AddressFamily::kIPv4, {10, 0, 0, 1}, 0};
    AdapterAddress netmask{AddressFamily::kIPv4, {255, 255, 255}, 0};
    AdapterAddress ipv6{AddressFamily::kIPv6, {0xFE, 0x80, 1}, 2};
    made->adapters->push_back({"rpcap://one", "the first", {{ipv4, netmask}}});
    made->adapters->push_back({"rpcap://two", std::nullopt, {{ipv6, {}}}});
    made->adapters->push_back({"rpcap://three", "no addresses", {}});
    made->macs["one"] = {2, 0, 0, 0, 0, 1};
    made->macs["two"] = {2, 0, 0, 0, 0, 2};
    return made;
  }();
  return driver;
}

// The thread that feeds: its calls may block for as long as nobody stops the playout.
class Feeder {
 public:
  enum class Work { kNone, kWrite, kFill, kTerminate };

  Feeder() {
    std::thread([this] { Loop(); }).detach();
  }

  // Once the work before is done; not at all when that takes long, as while the playout is paused.
  void Give(Work work, std::uint16_t count) {
    std::unique_lock lock(mutex_);
    if (!Idle(lock)) {
      return;
    }
    work_ = work;
    count_ = count;
    changed_.notify_all();
  }

  bool IsIdle() {
    std::unique_lock lock(mutex_);
    return Idle(lock);
  }

  std::uint64_t TakeCalls() {
    const std::lock_guard lock(mutex_);
    return std::exchange(calls_, 0);
  }

 private:
  bool Idle(std::unique_lock<std::mutex>& lock) {
    return changed_.wait_for(lock, std::chrono::milliseconds(1),
                             [this] { return work_ == Work::kNone; });
  }

  void Loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return work_ != Work::kNone; });
      const Work work = work_;
      const std::uint16_t count = count_;
      lock.unlock();
      const std::uint64_t calls = Do(work, count);
      lock.lock();
      calls_ += calls;
      work_ = Work::kNone;
      changed_.notify_all();
    }
  }

  static std::uint64_t Do(Work work, std::uint16_t count) {
    static const std::vector<std::uint8_t> data(4 * 65535, 0x47);
    constexpr int kMoreThanTheRingHolds = 300;
    if (work == Work::kTerminate) {
      Require(IPWriteTerminate() == 0, "IPWriteTerminate returns 0");
      return 1;
    }
    const int writes = work == Work::kFill ? kMoreThanTheRingHolds : 1;
    for (int i = 1; i <= writes; ++i) {
      const int result = IPWrite(data.data(), work == Work::kFill ? 65535 : count);
      Require(result == 0 || result == IPPLAYOUT_FAILED, "IPWrite returns 0 or -800");
      if (result != 0) {
        return static_cast<std::uint64_t>(i);
      }
    }
    return static_cast<std::uint64_t>(writes);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Work work_ = Work::kNone;
  std::uint16_t count_ = 0;
  std::uint64_t calls_ = 0;
};

class Session {
 public:
  Session(Feeder& feeder, FuzzInput input) : feeder_(feeder), input_(input) {
    TheDriver().AcceptAll();
    TheDriver().refuse_open = false;
    TheDriver().filter_result = {};
  }

  void Run() {
    if (input_.Number(1) % 8 != 5) {  // else the host forgets to initialise
      InitIpPlayout();
      CountCall();
      Configure();
    }
    while (!input_.IsEmpty()) {
      Step();
      totals.calls += feeder_.TakeCalls();
    }
    do {
      Stop();
    } while (!feeder_.IsIdle());
    Require(CleanupIpPlayout() == 1, "CleanupIpPlayout returns 1");
    CountCall();
  }

 private:
  void Step();
  void CallAny();
  void Configure();
  void Start();
  void Stop();
  void CompareWithAdapter();
  void Refuse();
  void UseStopEvent();
  void ClearOrRegister();

  Feeder& feeder_;
  FuzzInput input_;
  // Of the playout that runs.
  bool comparable_ = false;
  std::uint64_t copies_ = 1;
  std::uint64_t sent_before_ = TheDriver().SentFrames();
};

// Many a start finds a playout running: it is refused and the playout goes on.
void Session::Start() {
  const bool stopped = input_.Number(1) % 4 != 0;
  if (stopped) {
    Stop();
  }
  const auto copies = static_cast<std::uint64_t>(std::max(GetReplicationCount(), 0)) + 1;
  const bool undamaged = GetErrorInsertion()->ErrInsertionEnable == 0 && TheDriver().AcceptsAll();
  const int result = IPStart();
  totals.calls += 2;
  CountCall();
  Require(result == 0 || result == IPPLAYOUT_FAILED, "IPStart returns 0 or -800");
  ++(result == 0 ? totals.starts : totals.refused);
  if (result == 0) {
    copies_ = copies;
    comparable_ = stopped && undamaged;
  }
}

void Session::Stop() {
  input_.Number(1) % 2 == 0 ? IPStop() : IPStopImmediate();
  CountCall();
  Require(IsPlayoutComplete() == 1, "a stop ends the playout");
  Require(TheDriver().OpenHandles() == 0, "a stop closes the adapter");
  CompareWithAdapter();
  comparable_ = false;
}

void Session::CompareWithAdapter() {
  const std::uint64_t frames = TheDriver().SentFrames() - sent_before_;
  totals.frames += frames;
  sent_before_ += frames;
  constexpr std::uint64_t kWholeAfterAStop = 10'000;  // a stop cuts the copies short beyond
  if (!comparable_ || copies_ > kWholeAfterAStop) {
    return;
  }
  PlayoutStatistics statistics;
  GetPlayoutStatistics(&statistics);
  if (statistics.LostPackets != 0 || statistics.SequenceErrors != 0) {
    return;  // on request
  }
  Require(statistics.DatagramsSent * copies_ == frames, "as many frames sent as counted");
  ++totals.compared;
}

void Session::Configure() {
  static constexpr std::array<std::uint32_t, 8> kPacketSizes = {188, 188, 204, 192,
                                                                0,   208, 1,   70000};
  static constexpr std::array<double, 8> kRates = {1e-9, 1e-5, 0.1, 1, 38.8, 100, 900, 1e9};
  static constexpr std::array<std::uint32_t, 4> kFrameSizes = {1370, 90, 1500, 16128};
  SetTSPacketSize(kPacketSizes[input_.Number(1) % kPacketSizes.size()]);
  SetIPBitRate(kRates[input_.Number(1) % kRates.size()]);
  SetIPPacketSize(kFrameSizes[input_.Number(1) % kFrameSizes.size()]);
  SetTSPacketCount(input_.Number(1) % 12);
  SetReplicationCount(static_cast<int>(input_.Number(1) % 5));
  SetPlayFileSizeForIP(input_.Number(2));
  SetDeviceIndex(input_.Number(1) % 16 == 5 ? 3 : input_.Number(1) % 3);
  SetPlayerThreadPriority(7);  // real-time priorities are not for a fuzzer
  const std::uint32_t flags = input_.Number(2);
  const auto flag = [flags](unsigned bit) { return (flags >> bit) & 1; };
  SetIPLayerVersion(flag(0));
  SetProtocolMode(flag(1));
  SetPacketSizeMode(flag(2));
  SetIPFragmentation(flag(3));
  SetVLANEnabled(flag(4));
  SetTTSEnabled(flag(5));
  SetTSFragmentation(flag(6));
  SetBurstMode(flag(7) & flag(8));
  SetBurstSize(input_.Number(1));
  SetBurstValueType(1);
  SetJitterEnabled(flag(9) & flag(10));
  SetJitterPeriod(static_cast<float>(input_.Number(1)));
  SetJitterDistributionType(input_.Number(1) % 5);
  SetErrInsertionEnable(flag(11) & flag(12));
  totals.calls += 23;
}

// What happens below the library, and how much of it.
void Session::Refuse() {
  comparable_ = false;
  const std::uint32_t how = input_.Number(1);
  if (how % 4 != 0) {
    TheDriver().RefuseAfter(how);
    return;
  }
  TheDriver().AcceptAll();
  TheDriver().refuse_open = how % 16 == 4;
  TheDriver().filter_result.stage =
      how % 16 == 8 ? FilterResult::Stage::kSet : FilterResult::Stage::kDone;
}

void Session::UseStopEvent() {
  const intptr_t event = GetIPStopEvent();
  CountCall();
  if (event == 0) {
    return;
  }
  std::uint64_t one = 1;
  pollfd readable{static_cast<int>(event), POLLIN, 0};
  const bool signalled = ::poll(&readable, 1, 0) == 1;
  const ssize_t done =
      signalled ? ::read(readable.fd, &one, sizeof one) : ::write(readable.fd, &one, sizeof one);
  Require(done == sizeof one, "the stop event can be used");
}

constexpr bool HasAStepOfItsOwn(std::string_view name) {
  constexpr std::string_view kNames[] = {"IPStart",
                                         "IPStop",
                                         "IPStopImmediate",
                                         "IPWrite",
                                         "IPWriteTerminate",
                                         "ClearStatistics",
                                         "RegisterForIPPlayoutCompletion"};
  return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

void Session::CallAny() {
  struct Export {
    bool here;
    void (*call)(FuzzInput& input);
  };
  static constexpr Export kExports[] = {
#define EXPORT(name)                           \
  {!HasAStepOfItsOwn(#name), [](auto& input) { \
     if constexpr (!HasAStepOfItsOwn(#name)) { \
       CallWithAnything(&name, input);         \
     }                                         \
   }},
#include "exports.inc"
#undef EXPORT
  };
  const Export& called = kExports[input_.Number(2) % std::size(kExports)];
  if (called.here) {
    called.call(input_);
    CountCall();
  }
}

void Session::ClearOrRegister() {
  if (input_.Number(1) % 2 == 0) {
    ClearStatistics();
    comparable_ = false;
    CountCall();
    return;
  }
  // Events stay registered for good: a few of a process are enough.
  constexpr intptr_t kClosed = 1 << 30;
  static const std::array<intptr_t, 5> events = {::eventfd(0, EFD_NONBLOCK), ::eventfd(0, 0), 0, -1,
                                                 kClosed};
  static int registered = 0;
  const bool more = registered < 40;
  registered += more ? 1 : 0;
  const intptr_t event = events[input_.Number(1) % events.size()];
  const int expected = more && event == kClosed ? 0 : 1;
  Require(RegisterForIPPlayoutCompletion(more ? &event : nullptr) == expected,
          "registering is done, but of a closed descriptor");
  CountCall();
}

void Session::Step() {
  const std::uint32_t what = input_.Number(1);
  if (what < 96) {
    CallAny();
  } else if (what < 112) {
    Configure();
  } else if (what < 144) {
    Start();
  } else if (what < 200) {
    feeder_.Give(Feeder::Work::kWrite, static_cast<std::uint16_t>(input_.Number(2) % 20'000));
  } else if (what < 201) {
    feeder_.Give(Feeder::Work::kFill, 0);
  } else if (what < 216) {
    feeder_.Give(Feeder::Work::kTerminate, 0);
  } else if (what < 224) {
    Stop();
  } else if (what < 236) {
    IPPause(what % 2);
    CountCall();
  } else if (what < 240) {
    InitIpPlayout();
    CountCall();
  } else if (what < 246) {
    Refuse();
  } else if (what < 250) {
    UseStopEvent();
  } else if (what < 252) {
    ClearOrRegister();
  } else {
    Require(IPWrite(nullptr, 1) == IPPLAYOUT_FAILED, "nothing cannot be written");
    CountCall();
  }
}

}  // namespace

// In the place of the one on libpcap; the linker sees to it.
namespace ipplayout {
CaptureDriver& FuzzedDriver() asm("__wrap__ZN9ipplayout14PlatformDriverEv");
CaptureDriver& FuzzedDriver() {
  return TheDriver();
}
}  // namespace ipplayout

// A queue of more than this is refused, as on a small machine.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=256";
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  log_fd = ::dup(STDERR_FILENO);
  // Neighbours are asked for on a network of our own, where there are none.
  if (::unshare(CLONE_NEWNET) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
    std::perror("interface_fuzzer: unshare");
    std::exit(1);
  }
  std::atexit(PrintTotals);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Feeder& feeder = *new Feeder;
  Session(feeder, FuzzInput({data, size})).Run();
  return 0;
}
