// SPDX-License-Identifier: MIT
#include "host/play/make_playing.h"

#include <algorithm>
#include <deque>
#include <iterator>
#include <utility>

#include "host/base/event.h"
#include "host/base/library_output.h"
#include "host/base/nice_value.h"
#include "host/library/scheduled_playout.h"
#include "host/play/orders.h"
#include "host/play/scheduled_playing.h"
#include "host/play/start_failure.h"
#include "host/play/start_rights.h"
#include "host/play/twin_playing.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

// The one that is process-wide and paced by a bit rate.
class RatePlaying final : public Playing {
 public:
  RatePlaying(const PlayOptions& options, const PlayPlan& plan) : options_(options), plan_(plan) {}

  std::optional<std::string> Start() override {
    constexpr int kNice = 10;
    const intptr_t event = ended_.Get();
    RegisterForIPPlayoutCompletion(&event);
    Apply(plan_.settings);
    // The library spins less in a process with a nice value above 0.
    if (options_.economy) {
      RaiseNiceValue(kNice);
    }
    // Without the two lines that the library prints about its threads.
    const LibrarySilence silence(LibrarySilence::Of::kOutput);
    KeepRightsToStart();
    if (IPStart() == 0) {
      return std::nullopt;
    }
    std::string reason = WhyNotStarted(plan_.settings.params.DeviceIndex);
    IPStop();
    return reason;
  }

  Feeder::Sink Sink() override {
    return {.write = [](const void* data, std::uint16_t units) { return IPWrite(data, units); },
            .terminate = [] { IPWriteTerminate(); }};
  }
  int EndDescriptor() const override { return ended_.Get(); }

  std::optional<std::string> Failed() override {
    // Writes nothing; the result distinguishes the end of the data from a failure.
    const std::uint32_t nothing = 0;
    return IPWrite(&nothing, 0) == IPPLAYOUT_FAILED ? std::optional(std::string()) : std::nullopt;
  }

  void Pause(bool on) override { IPPause(on ? 1 : 0); }

  bool TakesTimes() const override { return false; }

  // The library takes one request of a kind at a time, so those to come wait here.
  std::optional<std::string> Order(const Action& action, std::chrono::nanoseconds,
                                   std::uint64_t number) override {
    const RequestForm* form = FormOf(action.kind);
    if (form == nullptr || (action.kind == ActionKind::kDelay && action.amount > 1)) {
      return "needs frames that are paced one by one";
    }
    waiting_.push_back({form, action.count, {number, OrderOf(action, {}, 0).What, 0, 0, -1, -1}});
    return std::nullopt;
  }

  std::vector<IpPlayoutDone> ReadDone() override {
    std::vector<IpPlayoutDone> done;
    while (!waiting_.empty()) {
      Request& request = waiting_.front();
      const PlayoutStatistics counters = Counters();
      const std::uint64_t count = counters.*request.form->counter;
      if (is_raised_ && count == before_) {
        break;
      }
      if (is_raised_ && request.done.Count++ == 0) {
        request.done.Datagram = counters.DatagramsSent - 1;
      }
      is_raised_ = request.done.Count < request.count;
      if (!is_raised_) {
        done.push_back(request.done);
        waiting_.pop_front();
        continue;
      }
      before_ = count;
      request.form->raise();
    }
    return done;
  }

  IpPlayoutFaultCounts Faults() const override { return {0, 0, waiting_.size(), 0, 0}; }

  PlayoutStatistics Counters() const override {
    PlayoutStatistics counters{};
    GetPlayoutStatistics(&counters);
    return counters;
  }

  std::optional<std::string> Stop() override {
    IPStop();
    return std::nullopt;
  }

 private:
  struct RequestForm {
    ActionKind kind;
    int (*raise)();
    std::uint64_t PlayoutStatistics::*counter;
  };
  struct Request {
    const RequestForm* form;
    std::uint32_t count;
    IpPlayoutDone done;
  };

  static const RequestForm* FormOf(ActionKind kind) {
    static constexpr RequestForm kForms[] = {
        {ActionKind::kLose, GeneratePacketLoss, &PlayoutStatistics::LostPackets},
        {ActionKind::kDelay, GenerateSequenceError, &PlayoutStatistics::SequenceErrors},
        {ActionKind::kBadIpChecksum, GenerateIPChecksumError, &PlayoutStatistics::IPChecksumErrors},
        {ActionKind::kBadUdpChecksum, GenerateUDPChecksumError,
         &PlayoutStatistics::UDPChecksumErrors}};
    const auto* form = std::find_if(std::begin(kForms), std::end(kForms),
                                    [kind](const RequestForm& row) { return row.kind == kind; });
    return form == std::end(kForms) ? nullptr : form;
  }

  const PlayOptions& options_;
  const PlayPlan& plan_;
  Event ended_;  // set by the library at the end of each run
  std::deque<Request> waiting_;
  bool is_raised_ = false;    // the request of the first one, for the next datagram
  std::uint64_t before_ = 0;  // its counter then
};

// Null where the plan is for the other one, or memory has run out.
std::unique_ptr<ScheduledPlaying> MakeScheduled(const PlayOptions& options, const PlayPlan& plan,
                                                PacketFormat format, StreamFaults* faults) {
  auto playout = ScheduledPlayout::Open();
  if (!plan.by_schedule || !playout) {
    return nullptr;
  }
  std::optional<MarkedWriter::Clock> clock;
  if (plan.by_arrival) {
    clock.emplace(CaptureClock{ArrivalMarks(SpeedOf(options)),
                               options.keep_losses ? plan.sizes.payload_bytes : 0});
  } else if (plan.pcr_rate) {
    clock.emplace(
        PcrMarks(plan.pcr_rate->pid, plan.pcr_rate->packets_per_second, SpeedOf(options)));
  }
  return std::make_unique<ScheduledPlaying>(options, plan, std::move(*playout), clock, format,
                                            faults);
}

}  // namespace

std::unique_ptr<Playing> MakePlaying(const PlayOptions& options, const PlayPlan& plan,
                                     PacketFormat format, StreamFaults* faults,
                                     const std::optional<TwinPath>& twin) {
  auto playing = MakeScheduled(options, plan, format, faults);
  if (!playing) {
    return std::make_unique<RatePlaying>(options, plan);
  }
  if (!twin) {
    return playing;
  }
  auto second = MakeScheduled(twin->options, twin->plan, format, nullptr);
  constexpr std::chrono::milliseconds kLead(300);  // in which a file's beginning is read
  const auto lead = options.prefill.value_or(kLead);
  return std::make_unique<TwinPlaying>(std::move(playing), std::move(second), lead,
                                       options.twin_skew.value_or(std::chrono::nanoseconds(0)));
}

}  // namespace ipplay
