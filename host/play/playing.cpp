// SPDX-License-Identifier: MIT
#include "host/play/playing.h"

#include <algorithm>
#include <deque>
#include <iterator>

#include "host/base/capabilities.h"
#include "host/base/event.h"
#include "host/base/library_output.h"
#include "host/base/nice_value.h"
#include "host/base/wall_clock.h"
#include "host/library/scheduled_playout.h"
#include "host/play/marked_writer.h"
#include "host/play/orders.h"
#include "host/play/start_failure.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

// The library opens the adapter and sets its threads' scheduling class; nothing needs rights later.
template <typename Start>
auto WithRightsToStart(Start start) {
  KeepCapabilities({kCapNetRaw, kCapSysNice});
  auto result = start();
  KeepCapabilities({});
  return result;
}

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
    if (WithRightsToStart([] { return IPStart(); }) == 0) {
      return std::nullopt;
    }
    std::string reason = WhyNotStarted(plan_.settings.params.DeviceIndex);
    IPStop();
    return reason;
  }

  Feeder::Sink Sink() override {
    return {.write = [](const void* data, std::uint16_t units) { return IPWrite(data, units); },
            .terminate = [] { IPWriteTerminate(); },
            .arrived = nullptr};
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

// One with a handle: at its rate, or by marks, whose frames leave when the PCRs say.
class ScheduledPlaying final : public Playing {
 public:
  ScheduledPlaying(const PlayOptions& options, const PlayPlan& plan, ScheduledPlayout playout,
                   const std::optional<PcrMarks>& marks, PacketFormat format, StreamFaults* faults)
      : options_(options), plan_(plan), playout_(std::move(playout)) {
    if (marks) {
      writer_.emplace(playout_, format, *marks, faults);
    }
  }

  std::optional<std::string> Start() override {
    if (auto failure = playout_.Configure(plan_.schedule)) {
      return failure->message;
    }
    is_configured_ = true;
    for (const IpPlayoutOrder& order : before_start_) {
      if (auto failure = playout_.Order(order)) {
        return failure->message;
      }
    }
    if (writer_) {
      playout_.Mark(0, std::chrono::nanoseconds(0));  // those of the PCRs follow it
    }
    std::optional<std::chrono::nanoseconds> start;
    if (options_.start_at) {
      start = ScheduledPlayout::Now() + (*options_.start_at - WallClockNow());
      if (*start < ScheduledPlayout::Now()) {
        return "the time of --start-at has passed";
      }
      starts_at_ = start;
    }
    if (writer_ && plan_.lead && start) {
      writer_->Follow(*start, *plan_.lead);
    } else if (writer_ && plan_.lead) {
      // What was read ahead is there, and frames take a moment to be built.
      start = ScheduledPlayout::Now() + std::chrono::milliseconds(50);
      writer_->Follow(*start, *plan_.lead);
    }
    auto failure = WithRightsToStart([this, start] { return playout_.Start(start); });
    return failure ? std::optional(failure->message) : std::nullopt;
  }

  Feeder::Sink Sink() override {
    return {.write =
                [this](const void* data, std::uint16_t units) {
                  const auto* bytes = static_cast<const std::uint8_t*>(data);
                  return Write({bytes, std::size_t{units} * 4}) ? 0 : IPPLAYOUT_FAILED;
                },
            .terminate = [this] { writer_ ? writer_->Finish() : playout_.End(); },
            .arrived =
                [this](std::optional<std::int64_t> time_ns) {
                  if (writer_) {
                    writer_->Arrived(time_ns);
                  }
                }};
  }
  int EndDescriptor() const override { return playout_.EndDescriptor(); }

  std::optional<std::string> Failed() override {
    const auto state = playout_.Wait(std::chrono::nanoseconds(0));
    return state ? std::nullopt : std::optional(state.Error().message);
  }

  void Pause(bool on) override { playout_.Pause(on); }

  bool TakesTimes() const override { return true; }

  std::optional<std::string> Order(const Action& action, std::chrono::nanoseconds at,
                                   std::uint64_t number) override {
    const IpPlayoutOrder order = OrderOf(action, at, number);
    if (!is_configured_) {
      before_start_.push_back(order);
      return std::nullopt;
    }
    auto failure = playout_.Order(order);
    return failure ? std::optional(failure->message) : std::nullopt;
  }

  std::vector<IpPlayoutDone> ReadDone() override {
    std::vector<IpPlayoutDone> done(64);
    done.resize(playout_.ReadDone(done));
    return done;
  }

  IpPlayoutFaultCounts Faults() const override { return playout_.Faults(); }

  PlayoutStatistics Counters() const override { return playout_.Statistics(); }
  std::optional<std::string> Stop() override {
    const auto failure = playout_.Stop();
    return failure ? std::optional(failure->message) : std::nullopt;
  }
  std::optional<IpPlayoutTiming> Timing() const override { return playout_.Timing(); }
  std::optional<std::chrono::nanoseconds> StartsAt() const override { return starts_at_; }
  std::optional<double> FollowedPpm() const override {
    return writer_ && plan_.lead ? std::optional(writer_->FollowedPpm()) : std::nullopt;
  }

 private:
  bool Write(std::span<const std::uint8_t> bytes) {
    return writer_ ? writer_->Write(bytes) : playout_.Write(bytes);
  }

  const PlayOptions& options_;
  const PlayPlan& plan_;
  std::optional<std::chrono::nanoseconds> starts_at_;
  ScheduledPlayout playout_;
  std::optional<MarkedWriter> writer_;  // with marks
  std::vector<IpPlayoutOrder> before_start_;
  bool is_configured_ = false;
};

}  // namespace

std::unique_ptr<Playing> MakePlaying(const PlayOptions& options, const PlayPlan& plan,
                                     PacketFormat format, StreamFaults* faults) {
  auto playout = ScheduledPlayout::Open();
  if (!plan.by_schedule || !playout) {
    return std::make_unique<RatePlaying>(options, plan);
  }
  std::optional<PcrMarks> marks;
  if (plan.pcr_rate) {
    marks.emplace(plan.pcr_rate->pid, plan.pcr_rate->packets_per_second, SpeedOf(options));
  }
  return std::make_unique<ScheduledPlaying>(options, plan, std::move(*playout), marks, format,
                                            faults);
}

}  // namespace ipplay
