// SPDX-License-Identifier: MIT
#include "host/play/playing.h"

#include "host/base/capabilities.h"
#include "host/base/event.h"
#include "host/base/library_output.h"
#include "host/base/nice_value.h"
#include "host/base/wall_clock.h"
#include "host/library/scheduled_playout.h"
#include "host/play/marked_writer.h"
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

  void Damage(ActionKind kind) override {
    switch (kind) {
      case ActionKind::kLose:
        GeneratePacketLoss();
        break;
      case ActionKind::kDelay:
        GenerateSequenceError();
        break;
      case ActionKind::kBadIpChecksum:
        GenerateIPChecksumError();
        break;
      case ActionKind::kBadUdpChecksum:
        GenerateUDPChecksumError();
        break;
      default:
        break;
    }
  }

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
  const PlayOptions& options_;
  const PlayPlan& plan_;
  Event ended_;  // set by the library at the end of each run
};

// One with a handle: at its rate, or by marks, whose frames leave when the PCRs say.
class ScheduledPlaying final : public Playing {
 public:
  ScheduledPlaying(const PlayOptions& options, const PlayPlan& plan, ScheduledPlayout playout,
                   const std::optional<PcrMarks>& marks, PacketFormat format)
      : options_(options), plan_(plan), playout_(std::move(playout)) {
    if (marks) {
      writer_.emplace(playout_, format, *marks);
    }
  }

  std::optional<std::string> Start() override {
    if (auto failure = playout_.Configure(plan_.schedule)) {
      return failure->message;
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

  void Damage(ActionKind kind) override {
    const struct {
      ActionKind kind;
      std::uint32_t what;
    } kKinds[] = {{ActionKind::kLose, IPPLAYOUT_DID_LOSE},
                  {ActionKind::kDelay, IPPLAYOUT_DID_DELAY},
                  {ActionKind::kBadIpChecksum, IPPLAYOUT_DID_IP_CHECKSUM},
                  {ActionKind::kBadUdpChecksum, IPPLAYOUT_DID_UDP_CHECKSUM}};
    for (const auto& row : kKinds) {
      if (row.kind == kind) {
        playout_.Damage(row.what, 1);
      }
    }
  }

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
};

}  // namespace

std::unique_ptr<Playing> MakePlaying(const PlayOptions& options, const PlayPlan& plan,
                                     PacketFormat format) {
  auto playout = ScheduledPlayout::Open();
  if (!plan.by_schedule || !playout) {
    return std::make_unique<RatePlaying>(options, plan);
  }
  std::optional<PcrMarks> marks;
  if (plan.pcr_rate) {
    marks.emplace(plan.pcr_rate->pid, plan.pcr_rate->packets_per_second, SpeedOf(options));
  }
  return std::make_unique<ScheduledPlaying>(options, plan, std::move(*playout), marks, format);
}

}  // namespace ipplay
