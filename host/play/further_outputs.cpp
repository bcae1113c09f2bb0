// SPDX-License-Identifier: MIT
#include "host/play/further_outputs.h"

#include <fmt/format.h>
#include <poll.h>

#include <utility>

#include "host/play/make_playing.h"

namespace ipplay {
namespace {

// Until the last frames have left, after those of the first output.
constexpr int kLongestEndMs = 2000;

// Where a sink has the member at all.
template <typename Member, typename Argument>
void Call(Member member, const Feeder::Sink& first, const std::vector<Feeder::Sink>& sinks,
          const Argument& argument) {
  for (const Feeder::Sink& sink : sinks) {
    if (sink.*member) {
      (sink.*member)(argument);
    }
  }
  if (first.*member) {
    (first.*member)(argument);
  }
}

// The earliest of those that have something to do.
std::optional<std::chrono::nanoseconds> EarliestDue(const std::vector<Feeder::Sink>& sinks) {
  std::optional<std::chrono::nanoseconds> earliest;
  for (const Feeder::Sink& sink : sinks) {
    const auto due = sink.idle.Due();
    if (due && (!earliest || *due < *earliest)) {
      earliest = due;
    }
  }
  return earliest;
}

IdleWork Together(const Feeder::Sink& first, std::vector<Feeder::Sink> sinks) {
  sinks.push_back(first);
  const auto run = [sinks] {
    for (const Feeder::Sink& sink : sinks) {
      if (sink.idle.run) {
        sink.idle.run();
      }
    }
  };
  return {.due = [sinks] { return EarliestDue(sinks); }, .run = run};
}

bool HasEnded(const Playing& playing, int timeout_ms) {
  pollfd wait{playing.EndDescriptor(), POLLIN, 0};
  return ::poll(&wait, 1, timeout_ms) > 0;
}

}  // namespace

FurtherOutputs::FurtherOutputs(std::vector<Output> outputs, PacketFormat format)
    : outputs_(std::move(outputs)), failures_(outputs_.size()) {
  for (const Output& output : outputs_) {
    playings_.push_back(MakePlaying(output.options, output.plan, format));
  }
}

std::optional<std::string> FurtherOutputs::Start() {
  for (std::size_t i = 0; i < playings_.size(); ++i) {
    if (const auto reason = playings_[i]->Start()) {
      Stop(false);
      return fmt::format("{}: {}", FormatTarget(outputs_[i].options.to), *reason);
    }
  }
  return std::nullopt;
}

Feeder::Sink FurtherOutputs::With(Feeder::Sink first) {
  std::vector<Feeder::Sink> sinks;
  for (const auto& playing : playings_) {
    sinks.push_back(playing->Sink());
  }
  return {.write =
              [first, sinks](const void* data, std::uint16_t units) {
                // One that has ended takes no more, which its own state says.
                for (const Feeder::Sink& sink : sinks) {
                  sink.write(data, units);
                }
                return first.write(data, units);
              },
          .terminate =
              [first, sinks] {
                for (const Feeder::Sink& sink : sinks) {
                  sink.terminate();
                }
                first.terminate();
              },
          .arrived =
              [first, sinks](const std::optional<Arrival>& arrival) {
                Call(&Feeder::Sink::arrived, first, sinks, arrival);
              },
          .follow = [first,
                     sinks](std::uint16_t pid) { Call(&Feeder::Sink::follow, first, sinks, pid); },
          .idle = Together(first, sinks),
          .wants_datagrams = first.wants_datagrams};
}

void FurtherOutputs::Pause(bool on) {
  for (const auto& playing : playings_) {
    playing->Pause(on);
  }
}

std::optional<std::string> FurtherOutputs::Order(const Action& action,
                                                 std::chrono::nanoseconds at) {
  return OfEach([&](Playing& playing) { return playing.Order(action, at, 0); });
}

std::optional<std::string> FurtherOutputs::Alter(const Change& change) {
  return OfEach([&](Playing& playing) { return playing.Alter(change); });
}

std::optional<std::string> FurtherOutputs::OfEach(
    const std::function<std::optional<std::string>(Playing&)>& order) {
  for (std::size_t i = 0; i < playings_.size(); ++i) {
    if (const auto reason = order(*playings_[i])) {
      return fmt::format("{}: {}", FormatTarget(outputs_[i].options.to), *reason);
    }
  }
  return std::nullopt;
}

void FurtherOutputs::Stop(bool complete) {
  for (std::size_t i = 0; i < playings_.size(); ++i) {
    if (HasEnded(*playings_[i], complete ? kLongestEndMs : 0)) {
      failures_[i] = playings_[i]->Failed();
    }
    if (const auto reason = playings_[i]->Stop()) {
      failures_[i] = reason;
    }
  }
}

std::vector<OutputStatus> FurtherOutputs::Status() const {
  std::vector<OutputStatus> all;
  for (std::size_t i = 0; i < playings_.size(); ++i) {
    const PlayOptions& options = outputs_[i].options;
    const bool is_timed = options.into.empty();  // nothing is late in a file
    all.push_back({FormatTarget(options.to), options.into, playings_[i]->Counters().DatagramsSent,
                   is_timed ? playings_[i]->Timing() : std::nullopt, failures_[i]});
  }
  return all;
}

}  // namespace ipplay
