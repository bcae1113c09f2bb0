// SPDX-License-Identifier: MIT
#include "host/demo/demo_command.h"

// `ipplay demo`: plays and measures side by side.
#include <fmt/format.h>
#include <CLI/App.hpp>

#include <memory>
#include <string>
#include <vector>

#include "host/base/child_process.h"
#include "host/base/header_lengths.h"
#include "host/base/library_output.h"
#include "host/base/memory_file.h"
#include "host/base/output_file.h"
#include "host/base/text.h"
#include "host/base/units.h"
#include "host/cli/config_file.h"
#include "host/cli/option_builder.h"
#include "host/demo/demo_network.h"
#include "host/demo/demo_stream.h"
#include "host/measure/measure_options.h"
#include "host/measure/measure_run.h"
#include "host/measure/results/report_html.h"
#include "host/stream/open_input.h"
#include "host/stream/stream_facts.h"

namespace ipplay::measure {
namespace {

constexpr std::uint32_t kPacketsPerDatagram = 7;
constexpr std::uint32_t kHeaderBytes =
    kEthernetHeaderBytes + kIpv4HeaderBytes + kUdpHeaderBytes + kRtpHeaderBytes;
constexpr std::uint16_t kPort = 5004;

struct DemoOptions {
  std::string file;
  std::optional<double> bit_rate;
  std::chrono::nanoseconds length{};
  std::string report_file;
  std::string report_over;  // what an older report must start with to be replaced
  bool serve = false;
  std::string listen;
  std::string token_file;
};

struct DemoStream {
  FileDescriptor memory;  // of the built-in stream
  std::string path;
  std::string name;  // for the user
  double bit_rate = 0;
  std::optional<double> speed;  // at which its own rate becomes that, where it has one
  PacketFormat format;
};

Result<DemoStream> BuiltInStream(const DemoOptions& options) {
  constexpr double kBitRate = 10e6;
  DemoStream stream;
  stream.bit_rate = options.bit_rate.value_or(kBitRate);
  stream.format = {.packet_bytes = kTsPacketLength};
  const auto bytes = MakeDemoStream(stream.bit_rate, options.length);
  stream.memory = CreateMemoryFile("stream", OnExec::kKeep);  // the player opens the same path
  if (!WriteAll(stream.memory, bytes)) {
    return Failure{ExitStatus::kFailed, "no memory for the stream"};
  }
  stream.path = fmt::format("/proc/self/fd/{}", stream.memory.Get());
  stream.name = "the built-in stream";
  return stream;
}

Result<DemoStream> StreamOf(const DemoOptions& options) {
  if (options.file.empty()) {
    return BuiltInStream(options);
  }
  auto input = OpenFile(options.file, {}, -1);
  if (!input) {
    return input.Error();
  }
  const auto facts = Examine(*input, {});
  if (!facts) {
    return facts.Error();
  }
  const auto bit_rate = options.bit_rate ? options.bit_rate : facts->BitRate();
  if (!bit_rate) {
    return UsageFailure(
        fmt::format("--bitrate is required: {} has no PCRs to take its rate from", options.file));
  }
  std::optional<double> speed;
  if (const auto own = facts->BitRate()) {
    speed = *bit_rate / *own;
  }
  return DemoStream{FileDescriptor(), options.file, QuotedLine(options.file),
                    *bit_rate,        speed,        facts->format};
}

// The command line of `ipplay measure` at the far end.
std::vector<std::string> MeasureWords(const DemoOptions& options, const DemoStream& stream) {
  const double payload = kPacketsPerDatagram * stream.format.CountedBytes();
  const double frame = kPacketsPerDatagram * stream.format.packet_bytes + kHeaderBytes;
  std::vector<std::string> words{DemoNetwork::kFar, "--direction=in",    "--buffer=64",
                                 "--max-loss=0",    "--max-reordered=0", "--max-checksum-errors=0"};
  words.push_back("--expect=" + stream.path);
  words.push_back(fmt::format("--expect-rate={:.3f}", stream.bit_rate * frame / payload));
  if (!options.report_file.empty()) {
    words.push_back("--report=" + options.report_file);
  }
  return words;
}

std::string TargetUrl() {
  return fmt::format("rtp://{}:{}", DemoNetwork::kFarAddress, kPort);
}

// Has the measurement start `player` once it listens, and end when that does.
void StartWhenMeasuring(MeasureOptions& measure, const DemoStream& stream,
                        const DemoNetwork& network, ChildProcess& player) {
  measure.start_sender = [&] {
    const std::string rate = stream.speed ? fmt::format("--speed={:.9f}", *stream.speed)
                                          : fmt::format("--bitrate={:.3f}", stream.bit_rate);
    return player.Start({.words = {"ipplay", "play", stream.path, "--to", TargetUrl(), "--device",
                                   DemoNetwork::kNear, rate}},
                        [&network] { return network.EnterNear(); });
  };
  measure.sender_ended = [&player] { return player.HasEnded(); };
}

Result<int> PlayAndMeasure(const DemoOptions& options, const DemoStream& stream,
                           MeasureOptions& measure) {
  const auto network = DemoNetwork::Create();
  if (!network) {
    return network.Error();
  }
  ChildProcess player;
  StartWhenMeasuring(measure, stream, *network, player);
  Print(Results(), "Playing {} at {} to {}, over a veth pair between two network namespaces\n",
        stream.name, FormatBitRate(stream.bit_rate), TargetUrl());
  std::fflush(Results());
  const auto measured =
      RunMeasurement(measure, {{"played", stream.name}, {"at", FormatBitRate(stream.bit_rate)}});
  if (player.HasEnded() && player.Status() != 0) {
    Print(stderr, "{}", player.Output());
    return player.Status();
  }
  if (measured && !options.report_file.empty()) {
    Print(Results(), "Report with plots: {}\n", options.report_file);
  }
  return measured;
}

Result<int> RunDemo(const DemoOptions& options) {
  if (!options.report_file.empty()) {
    const auto file = OutputFile::Create("--report", options.report_file, options.report_over);
    if (!file) {
      return file.Error();
    }
  }
  const auto stream = StreamOf(options);
  if (!stream) {
    return stream.Error();
  }
  CLI::App command;
  MeasureOptions measure;
  DefineMeasureOptions(command, measure);
  auto words = MeasureWords(options, *stream);
  command.parse(std::vector<std::string>(words.rbegin(), words.rend()));
  measure.report_over = options.report_over;
  measure.plain_words = true;
  return PlayAndMeasure(options, *stream, measure);
}

}  // namespace
}  // namespace ipplay::measure

namespace ipplay {

namespace {

// What does not go together with --serve, or not without it.
std::optional<Failure> Misplaced(const CLI::App& command, bool serve) {
  const auto given = [&](const char* name) { return command.get_option(name)->count() > 0; };
  for (const char* const name : {"--listen", "--token-file"}) {
    if (!serve && given(name)) {
      return UsageFailure(fmt::format("{}: only --serve listens; add --serve", name));
    }
  }
  for (const char* const name : {"FILE", "--bitrate", "--length", "--report"}) {
    if (serve && given(name)) {
      return UsageFailure(
          fmt::format("{}: --serve plays streams of its own; leave out one of the two", name));
    }
  }
  return std::nullopt;
}

}  // namespace

void RegisterDemo(CLI::App& app, Result<int>& outcome, const DemoServer& serve) {
  CLI::App* command = app.add_subcommand(
      "demo", "Play and measure side by side, between two network namespaces of its own");
  const auto options = std::make_shared<measure::DemoOptions>();
  OptionBuilder add(*command);
  add.Value("FILE", options->file, "FILE", "a file", "Stream to play instead of the built-in one",
            ParseText);
  add.Value("--bitrate", options->bit_rate, "RATE", "a number above 0 with k, M or G, as 9.75M",
            "Bit rate of the transport stream; default: by its PCRs, 10M for the built-in one",
            ParseBitRate);
  CLI::Option* length_option = add.Value(
      "--length", options->length, "TIME", "100ms to 60s", "Length of the built-in stream",
      [](const std::string& text) {
        const auto length = ParseDuration(text);
        const bool in_range = length && *length >= std::chrono::milliseconds(100) &&
                              *length <= std::chrono::minutes(1);
        return in_range ? length : std::nullopt;
      },
      "5s");
  add.Value("--report", options->report_file, "FILE", "a file", "Write a page with plots (HTML)",
            ParseText, "ipplay-demo.html");
  add.Flag("--serve", options->serve,
           "Serve the control room's page instead, with playouts and a meter, until Ctrl-C");
  add.Value("--listen", options->listen, "ADDRESS:PORT", "an address and a port",
            "Where --serve listens; beyond this machine with --token-file alone", ParseText,
            "127.0.0.1:8080");
  add.Value("--token-file", options->token_file, "FILE", "a file",
            "File of mode 0600 with the token that the page asks for", ParseText);
  command->callback([options, length_option, command, serve, &app, &outcome] {
    if (auto failure = Misplaced(*command, options->serve)) {
      outcome = *std::move(failure);
      return;
    }
    if (options->serve) {
      outcome = serve(options->listen, options->token_file);
      return;
    }
    if (IsFromFile(app, *command, "--report")) {
      options->report_over = measure::kReportStart;
    }
    if (!options->file.empty() && length_option->count() > 0) {
      outcome = UsageFailure("--length: only the built-in stream takes a length; leave out FILE");
      return;
    }
    outcome = measure::RunDemo(*options);
  });
}

}  // namespace ipplay
