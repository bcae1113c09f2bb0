// SPDX-License-Identifier: MIT
// The exported functions of many playouts. What goes wrong inside reaches the host as a result,
// never as an exception.
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

#include "control/library.h"
#include "control/playout_rules.h"
#include "ipplayout/playouts.h"
#include "platform/clock.h"

using ipplayout::Failure;
using ipplayout::Playouts;
using ipplayout::ScheduledPlayout;
using ipplayout::TheLibrary;

namespace {

// A sentence with the longest destination in it; longer ones are cut.
using Sentence = std::array<char, 512>;

Sentence& LastError() {
  thread_local Sentence error{};
  return error;
}

int Report(std::int32_t code, const char* sentence) {
  if (code != IPPLAYOUT_DONE) {
    std::snprintf(LastError().data(), LastError().size(), "%s", sentence);
  }
  return code;
}

Playouts::Handle HandleOf(const IpPlayout* playout) {
  return reinterpret_cast<Playouts::Handle>(playout);
}

// Runs `operation`, which returns a Failure, in the library's way.
template <typename Operation>
int Guarded(Operation operation) {
  try {
    const Failure failure = operation();
    return Report(failure.code, failure.sentence.c_str());
  } catch (const std::exception&) {
    return Report(IPPLAYOUT_NO_RESOURCES, "memory has run out");
  }
}

template <typename Operation>
int OnPlayout(IpPlayout* handle, Operation operation) {
  return Guarded([&]() -> Failure {
    const auto playout = TheLibrary().playouts.Find(HandleOf(handle));
    if (playout == nullptr) {
      return {IPPLAYOUT_BAD_PLAYOUT, "the playout is not open"};
    }
    return operation(*playout);
  });
}

Failure NullPointer(const char* name) {
  return {IPPLAYOUT_BAD_VALUE, std::string(name) + " is a null pointer"};
}

}  // namespace

IpPlayout* IpPlayoutOpen() {
  Playouts::Handle handle = 0;
  Guarded([&]() -> Failure {
    handle = TheLibrary().playouts.Open();
    return {};
  });
  return reinterpret_cast<IpPlayout*>(handle);
}

int IpPlayoutClose(IpPlayout* playout) {
  return Guarded([&] { return TheLibrary().playouts.Close(HandleOf(playout)); });
}

void IpPlayoutDefaults(IpPlayoutSettings* settings) {
  if (settings != nullptr) {
    *settings = ipplayout::DefaultSettings();
  }
}

int IpPlayoutConfigure(IpPlayout* playout, const IpPlayoutSettings* settings) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    return settings == nullptr ? NullPointer("settings") : p.Configure(*settings);
  });
}

int IpPlayoutMark(IpPlayout* playout, uint64_t offset, int64_t time_ns) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) { return p.Mark(offset, time_ns); });
}

int IpPlayoutStart(IpPlayout* const* playouts, size_t count, int64_t start_ns) {
  return Guarded([&]() -> Failure {
    if (playouts == nullptr || count == 0) {
      return {IPPLAYOUT_BAD_VALUE, "no playout is given"};
    }
    constexpr int64_t kLatest = ipplayout::TimeMarks::kLatest.count();
    if (start_ns < 0 || start_ns > kLatest) {
      return {IPPLAYOUT_BAD_VALUE, "start_ns is " + std::to_string(start_ns) +
                                       "; it can be 0 or a time on CLOCK_MONOTONIC, up to " +
                                       std::to_string(kLatest)};
    }
    std::vector<Playouts::Handle> handles(count);
    for (size_t i = 0; i < count; ++i) {
      handles[i] = HandleOf(playouts[i]);
    }
    return TheLibrary().playouts.Start(
        handles, start_ns == 0 ? std::nullopt : std::optional(std::chrono::nanoseconds(start_ns)));
  });
}

int64_t IpPlayoutNow() {
  return ipplayout::platform::MonotonicNow().count();
}

int IpPlayoutWrite(IpPlayout* playout, const void* data, size_t bytes) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    return data == nullptr && bytes > 0 ? NullPointer("data")
                                        : p.Write(static_cast<const uint8_t*>(data), bytes);
  });
}

int IpPlayoutTryWrite(IpPlayout* playout, const void* data, size_t bytes, size_t* taken) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    if (taken == nullptr || (data == nullptr && bytes > 0)) {
      return NullPointer(taken == nullptr ? "taken" : "data");
    }
    return p.TryWrite(static_cast<const uint8_t*>(data), bytes, *taken);
  });
}

int IpPlayoutEnd(IpPlayout* playout) {
  return OnPlayout(playout, [](ScheduledPlayout& p) { return p.End(); });
}

int IpPlayoutWait(IpPlayout* playout, int64_t timeout_ns) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    return p.Wait(timeout_ns < 0 ? std::nullopt
                                 : std::optional(std::chrono::nanoseconds(timeout_ns)));
  });
}

intptr_t IpPlayoutEndEvent(IpPlayout* playout) {
  intptr_t event = 0;
  OnPlayout(playout, [&](ScheduledPlayout& p) -> Failure {
    event = p.EndEvent();
    return {};
  });
  return event;
}

int IpPlayoutPause(IpPlayout* playout, uint32_t pause) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) -> Failure {
    if (pause > IPPLAYOUT_ON) {
      return {IPPLAYOUT_BAD_VALUE, "pause is " + std::to_string(pause) + "; it can be 0 or 1"};
    }
    return p.Pause(pause == IPPLAYOUT_ON);
  });
}

int IpPlayoutStop(IpPlayout* playout) {
  return OnPlayout(playout, [](ScheduledPlayout& p) { return p.Stop(); });
}

int IpPlayoutOrderFault(IpPlayout* playout, const IpPlayoutOrder* order) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    return order == nullptr ? NullPointer("order") : p.Order(*order);
  });
}

int IpPlayoutChange(IpPlayout* playout, const IpPlayoutSettings* settings, double speed,
                    int64_t at_ns) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    return settings == nullptr ? NullPointer("settings") : p.Change(*settings, speed, at_ns);
  });
}

int IpPlayoutDamage(IpPlayout* playout, uint32_t what, uint32_t count) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) -> Failure {
    if (count == 0) {
      return {IPPLAYOUT_BAD_VALUE, "count is 0; it can be 1 to 1000000"};
    }
    return p.Order({0, what, count, 0, 0, 0, 0});
  });
}

int IpPlayoutReadDone(IpPlayout* playout, IpPlayoutDone* out, size_t room, size_t* taken) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    if (taken == nullptr || (out == nullptr && room > 0)) {
      return NullPointer(taken == nullptr ? "taken" : "out");
    }
    return p.ReadDone(out, room, *taken);
  });
}

int IpPlayoutGetFaults(IpPlayout* playout, IpPlayoutFaultCounts* out) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    return out == nullptr ? NullPointer("out") : p.GetFaults(*out);
  });
}

int IpPlayoutGetStatistics(IpPlayout* playout, PlayoutStatistics* out) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    return out == nullptr ? NullPointer("out") : p.GetStatistics(*out);
  });
}

int IpPlayoutGetTiming(IpPlayout* playout, IpPlayoutTiming* out) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    return out == nullptr ? NullPointer("out") : p.GetTiming(*out);
  });
}

int IpPlayoutGetLateness(IpPlayout* playout, int64_t up_to_ns, uint64_t* frames, int64_t* sum_ns) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    if (frames == nullptr || sum_ns == nullptr) {
      return NullPointer(frames == nullptr ? "frames" : "sum_ns");
    }
    return p.GetLateness(up_to_ns, *frames, *sum_ns);
  });
}

int IpPlayoutReadLedger(IpPlayout* playout, IpPlayoutRecord* out, size_t room, size_t* taken) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    if (taken == nullptr || (out == nullptr && room > 0)) {
      return NullPointer(taken == nullptr ? "taken" : "out");
    }
    return p.ReadLedger(out, room, *taken);
  });
}

int IpPlayoutReadDepartures(IpPlayout* playout, IpPlayoutDeparture* out, size_t room,
                            size_t* taken) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) {
    if (taken == nullptr || (out == nullptr && room > 0)) {
      return NullPointer(taken == nullptr ? "taken" : "out");
    }
    return p.ReadDepartures(out, room, *taken);
  });
}

int IpPlayoutWriteLedger(IpPlayout* playout, const char* path) {
  return OnPlayout(playout, [&](ScheduledPlayout& p) { return p.WriteLedger(path); });
}

uint64_t IpPlayoutSeed(IpPlayout* playout) {
  uint64_t seed = 0;
  OnPlayout(playout, [&](ScheduledPlayout& p) -> Failure {
    seed = p.Seed();
    return {};
  });
  return seed;
}

const char* IpPlayoutError() {
  return LastError().data();
}
