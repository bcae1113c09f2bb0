// SPDX-License-Identifier: MIT
#include "host/measure/measure_options.h"

#include <CLI/App.hpp>

#include <algorithm>

#include "host/base/units.h"
#include "host/cli/option_builder.h"

namespace ipplay::measure {
namespace {

constexpr const char* kDurationAllowed = "a length of time, as in 30s, 500ms or 50us";
constexpr const char* kBitRateAllowed = "a bit rate above 0, as in 9.75M or 38810k";

template <typename Enum>
struct Word {
  const char* text;
  Enum value;
};

template <typename Enum, std::size_t kCount>
auto OneOf(const Word<Enum> (&words)[kCount]) {
  return [&words](const std::string& text) -> std::optional<Enum> {
    for (const auto& word : words) {
      if (text == word.text) {
        return word.value;
      }
    }
    return std::nullopt;
  };
}

constexpr Word<RtpMode> kRtpWords[] = {
    {"auto", RtpMode::kGuess}, {"on", RtpMode::kAlways}, {"off", RtpMode::kNever}};
constexpr Word<Direction> kDirectionWords[] = {
    {"both", Direction::kBoth}, {"in", Direction::kIn}, {"out", Direction::kOut}};

std::optional<std::int64_t> ParseNanoseconds(const std::string& text) {
  const auto duration = ParseDuration(text);
  return duration ? std::optional<std::int64_t>(duration->count()) : std::nullopt;
}

// In powers of 1024.
std::optional<std::uint64_t> ParseMemory(const std::string& text) {
  constexpr std::uint64_t kLeast = std::uint64_t{16} << 20;
  constexpr std::uint64_t kMost = std::uint64_t{1} << 40;
  constexpr std::string_view kUnits = "KMGT";
  const std::size_t unit = text.empty() ? std::string_view::npos : kUnits.find(text.back());
  const bool has_unit = unit != std::string_view::npos;
  const auto number = ParseNumber(has_unit ? text.substr(0, text.size() - 1) : text, 0, kMost);
  const std::uint64_t scale = has_unit ? std::uint64_t{1} << (10 * (unit + 1)) : 1;
  if (!number || *number > kMost / scale) {
    return std::nullopt;
  }
  const std::uint64_t bytes = *number * scale;
  return bytes >= kLeast ? std::optional(bytes) : std::nullopt;
}

auto NumberBetween(std::uint64_t lowest, std::uint64_t highest) {
  return [=](const std::string& text) { return ParseNumber(text, lowest, highest); };
}

// N, or N:TIME.
std::optional<ReorderLimits> ParseReorderLimits(const std::string& text) {
  constexpr std::uint64_t kMostPackets = 10'000;
  constexpr std::chrono::seconds kLongestWait{10};
  const std::size_t colon = text.find(':');
  const auto packets = ParseNumber(text.substr(0, colon), 1, kMostPackets);
  if (!packets) {
    return std::nullopt;
  }
  ReorderLimits limits;
  limits.packets = static_cast<std::uint16_t>(*packets);
  if (colon != std::string::npos) {
    const auto wait = ParseDuration(text.substr(colon + 1));
    if (!wait || wait->count() <= 0 || *wait > kLongestWait) {
      return std::nullopt;
    }
    limits.longest_wait_ns = wait->count();
  }
  return limits;
}

void DefineEnd(OptionBuilder& add, MeasureOptions& o) {
  add.Group("When to end (a capture file ends by itself, Ctrl-C ends at once)");
  add.Value("--duration", o.duration, "TIME", kDurationAllowed,
            "This long after the first frame, or after the start if none comes",
            [](const std::string& text) {
              const auto duration = ParseDuration(text);
              return duration && duration->count() > 0 ? duration : std::nullopt;
            });
  add.Value("--count", o.measurement.max_frames, "N", "a whole number above 0",
            "After this many UDP frames", NumberBetween(1, UINT64_MAX));
  add.Value("--silence", o.silence, "TIME", kDurationAllowed,
            "Once frames have come and then none for this long", ParseDuration);
  add.Value("--wait", o.wait, "TIME", kDurationAllowed, "If no frame has come for this long",
            ParseDuration);
}

void DefineStream(OptionBuilder& add, MeasureOptions& o) {
  MeasurementSettings& m = o.measurement;
  add.Group("What is expected");
  add.Value("--expect-rate", m.expected_rate, "RATE", kBitRateAllowed,
            "Bit rate of one stream, counting whole frames from the Ethernet header on, without "
            "the check sequence",
            ParseBitRate);
  add.Value("--expect", o.expected_file, "FILE", "a file",
            "Compare each stream's payload with this file, which may be played over and over",
            ParseText);
  add.Value("--media-rate", m.media_rate, "RATE", kBitRateAllowed,
            "Rate at which the delay factor's buffer drains; default: the rate by the PCRs",
            ParseBitRate);
  add.Value("--clump-gap", m.clump_gap_ns, "TIME", kDurationAllowed,
            "Frames closer than this are clumped; default: a quarter of the ideal gap",
            ParseNanoseconds);
  add.Value("--rtp", m.rtp, "MODE", "auto, on or off",
            "Whether the UDP payload starts with an RTP header", OneOf(kRtpWords), "auto");
  add.Value("--rtp-clock", m.rtp_clock_rate, "HZ", "1 to 1000000000",
            "Ticks per second of the RTP time stamps", NumberBetween(1, 1'000'000'000), "90000");
  add.Value("--reorder-window", m.reorder, "N[:TIME]",
            "1 to 10000 packets, alone or with up to 10s, as in 64 or 64:200ms",
            "RTP packets by which, and time within which, a late one is put in its place before "
            "the transport stream is judged; 1 puts none",
            ParseReorderLimits, "32:100ms");
  add.Value("--max-streams", m.max_streams, "N", "1 to 1000000",
            "Streams that are measured one by one", NumberBetween(1, 1'000'000), "20000");
  add.Value("--memory", m.memory_bytes, "SIZE", "16M to 1T, as in 512M or 2G",
            "Most memory for figures and results; beyond it plots, then the look into transport "
            "streams, then further streams are left out and counted",
            ParseMemory, "512M");
}

void DefineJoins(CLI::App& command, MeasureOptions& o) {
  command
      .add_option_function<std::vector<std::string>>(
          "--join",
          [&o](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
              const auto group = ParseGroupSource(text);
              if (!group) {
                throw OptionBuilder::Invalid(
                    "--join", text,
                    "a multicast group, or GROUP@SOURCE with the address of its sender, as "
                    "239.1.1.1, 232.1.1.1@10.0.0.1 or ff3e::8000:1");
              }
              if (std::ranges::find(o.joins, *group) == o.joins.end()) {
                o.joins.push_back(*group);
              }
            }
          },
          "Join this multicast group on the adapter, from one source if it is named (IGMP, MLD), "
          "and leave it at the end; may be repeated")
      ->type_name("GROUP[@SOURCE]")
      ->allow_extra_args(false)
      ->group("Source");
}

void DefineCapture(OptionBuilder& add, MeasureOptions& o) {
  LiveSettings& c = o.capture;
  add.Group("Capture");
  add.Value("--filter", c.filter, "EXPR", "an expression of pcap-filter(7)",
            "Look at matching frames only, as in \"udp port 5004\"", ParseText);
  add.Value("--direction", c.direction, "WAY", "in, out or both",
            "Frames that arrive at the adapter, leave it, or both", OneOf(kDirectionWords), "both");
  add.Value(
      "--buffer", c.buffer_bytes, "MIB", "1 to 2047",
      "Room for captured frames that have not been measured yet",
      [](const std::string& text) {
        const auto mib = ParseNumber(text, 1, 2047);
        return mib ? std::optional(*mib << 20) : std::nullopt;
      },
      "512");
  add.Value(
      "--snaplen", c.snapshot_bytes, "BYTES", "64 to 65535",
      "Capture this many bytes of each frame; a cut payload is neither checked nor analysed",
      [](const std::string& text) {
        const auto bytes = ParseNumber(text, 64, 65535);
        return bytes ? std::optional(static_cast<int>(*bytes)) : std::nullopt;
      },
      "65535");
  add.Flag("--adapter-timestamps", c.adapter_time_stamps,
           "Time stamps of the adapter, not of the kernel");
  add.Unset("--no-promiscuous", c.promiscuous, "Leave the adapter's address filter on");
  add.Unset("--no-udp-checksum", o.measurement.check_udp,
            "Don't check UDP checksums (a sender on this machine may leave them to its adapter)");
  add.Unset("--no-ts", o.measurement.analyse_ts, "Don't analyse the transport stream");
}

void DefineLimits(OptionBuilder& add, MeasureOptions& o) {
  o.limits.resize(LimitKinds().size());
  add.Group("Limits (exit status 4 if any is not met)");
  constexpr struct {
    const char* type;
    const char* allowed;
  } kUnits[] = {{"TIME", kDurationAllowed},
                {"N", "a whole number"},
                {"N|PERCENT", "a whole number, or a share up to 100%, as in 0.1%"},
                {"PPM", "parts per million, as in 20ppm"}};
  for (const LimitKind& kind : LimitKinds()) {
    const auto& unit = kUnits[static_cast<std::size_t>(kind.unit)];
    const auto place = static_cast<std::size_t>(&kind - LimitKinds().data());
    add.Value(kind.option, o.limits[place], unit.type, unit.allowed, kind.what,
              [&kind](const std::string& text) { return ParseLimit(kind, text); });
  }
  add.Value("--min-streams", o.min_streams, "N", "a whole number", "Smallest number of streams",
            NumberBetween(0, UINT64_MAX));
}

void DefineOutput(OptionBuilder& add, MeasureOptions& o) {
  add.Group("Output");
  add.Flag("--json", o.json, "Print the result as JSON");
  add.Flag("--quiet,-q", o.quiet, "Print nothing while measuring");
  add.Value("--report", o.report_file, "FILE", "a file", "Write a page with plots (HTML)",
            ParseText);
  add.Value("--events", o.events_file, "FILE", "a file",
            "Write what goes wrong while it does, a JSON object a line", ParseText);
  add.Value("--per-second", o.seconds_file, "FILE", "a file",
            "Write a row for each stream and second as it ends: CSV where the name ends in .csv, "
            "otherwise JSON",
            ParseText);
  add.Value("--rows", o.rows, "N", "0 to 100000", "Streams that the tables show",
            NumberBetween(0, 100'000), "20");
  add.Value("--write-config", o.write_config, "FILE", "a file",
            "Write all options to FILE, which --config reads", ParseText)
      ->configurable(false);
}

}  // namespace

void DefineMeasureOptions(CLI::App& command, MeasureOptions& options) {
  OptionBuilder add(command);
  add.Group("Source");
  add.Value(
         "SOURCE,--source", options.source, "DEVICE|FILE", "an adapter or a file",
         "Adapter to capture on, or a pcap or pcapng file or pipe to read (- for standard input)",
         ParseText)
      ->required();
  add.Flag("--follow", options.follow,
           "The file grows: go on with what is added, to Ctrl-C or as below");
  DefineJoins(command, options);
  DefineEnd(add, options);
  DefineStream(add, options);
  DefineLimits(add, options);
  command.get_option("--max-rate-error")->needs(command.get_option("--expect-rate"));
  DefineCapture(add, options);
  DefineOutput(add, options);
}

}  // namespace ipplay::measure
