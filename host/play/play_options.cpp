// SPDX-License-Identifier: MIT
#include "host/play/play_options.h"

#include <CLI/App.hpp>

#include <algorithm>

#include "host/base/host_name.h"
#include "host/base/units.h"
#include "host/base/wall_clock.h"
#include "host/cli/option_builder.h"

namespace ipplay {
namespace {

constexpr std::uint32_t kMaxU32 = UINT32_MAX;

std::optional<bool> ParseOnOff(const std::string& text) {
  if (text == "on") {
    return true;
  }
  if (text == "off") {
    return false;
  }
  return std::nullopt;
}

// Below it is a rate in other units, such as megabits.
std::optional<double> ParsePlayedRate(const std::string& text) {
  constexpr double kLeast = 1000;
  const auto rate = ParseBitRate(text);
  return rate && *rate >= kLeast ? rate : std::nullopt;
}

std::optional<std::chrono::nanoseconds> ParseSapInterval(const std::string& text) {
  constexpr std::chrono::seconds kLeast{1};
  constexpr std::chrono::hours kMost{24};
  const auto interval = ParseDuration(text);
  return interval && *interval >= kLeast && *interval <= kMost ? interval : std::nullopt;
}

// The names of RFC 4594 for code points: EF, CS0 to CS7, AF11 to AF43; or a number.
std::optional<std::uint32_t> ParseDscp(const std::string& text) {
  constexpr std::uint32_t kExpedited = 46;
  const auto digit = [&text](std::size_t at, int least, int most) {
    const int value = text[at] - '0';
    return value >= least && value <= most ? std::optional(static_cast<std::uint32_t>(value))
                                           : std::nullopt;
  };
  if (text == "EF") {
    return kExpedited;
  }
  if (text.size() == 3 && text.starts_with("CS")) {
    const auto selector = digit(2, 0, 7);
    return selector ? std::optional(*selector * 8) : std::nullopt;
  }
  if (text.size() == 4 && text.starts_with("AF")) {
    const auto assured = digit(2, 1, 4);
    const auto drops = digit(3, 1, 3);
    return assured && drops ? std::optional(*assured * 8 + *drops * 2) : std::nullopt;
  }
  const auto number = ParseNumber(text, 0, 63);
  return number ? std::optional(static_cast<std::uint32_t>(*number)) : std::nullopt;
}

std::optional<Target> ParseNamedTarget(const std::string& text) {
  if (const auto target = ParseTarget(text)) {
    return target;
  }
  const auto named = SplitNamedTarget(text);
  if (!named) {
    return std::nullopt;
  }
  const auto address = AddressOfHost(named->host);
  if (!address) {
    throw CLI::ValidationError(
        "--to",
        fmt::format("\"{}\" is no host that this machine knows; give an address", named->host));
  }
  return Target{named->rtp, *address, named->port};
}

std::optional<PlayOptions::Place> ParsePlace(const std::string& text) {
  const bool is_file = text.find("://") == std::string::npos && text.ends_with(".pcapng");
  const auto target = ParseNamedTarget(is_file ? "rtp://239.1.1.1:5004" : text);
  return target ? std::optional(PlayOptions::Place{*target, is_file ? text : ""}) : std::nullopt;
}

void TakePlaces(const std::vector<std::string>& texts, PlayOptions& o) {
  o.also_to.clear();
  for (const std::string& text : texts) {
    const auto place = ParsePlace(text);
    if (!place) {
      throw OptionBuilder::Invalid(
          "--to", text, "rtp://ADDRESS:PORT or udp://ADDRESS:PORT, IPv6 in [ ], or FILE.pcapng");
    }
    if (&text != &texts.front()) {
      o.also_to.push_back(*place);
      continue;
    }
    o.to = place->to;
    if (!place->into.empty()) {
      o.into = place->into;
    }
  }
}

void DefineInputs(CLI::App& command, PlayOptions& o) {
  command
      .add_option_function<std::vector<std::string>>(
          "INPUT,--input",
          [&o](const std::vector<std::string>& names) {
            if (std::find(names.begin(), names.end(), "") != names.end()) {
              throw OptionBuilder::Invalid("INPUT", "", "a file or -");
            }
            o.input = names.front();
            o.then.assign(names.begin() + 1, names.end());
          },
          "File to play, a pcap or pcapng file, udp:// or rtp:// [SOURCE@]ADDRESS:PORT, or - for "
          "standard input; several files are played in a row, as one stream")
      ->type_name("INPUT")
      ->required();
}

void DefineInput(OptionBuilder& add, PlayOptions& o) {
  add.Group("Which part of the input");
  add.Value("--flow", o.flow, "[SOURCE@]ADDRESS:PORT",
            "as 239.1.1.1:5004, or 10.0.0.1@239.1.1.1:5004",
            "Flow of a capture to play, by its destination; default: the only one", ParseEndpoint);
  add.Value(
      "--timing", o.by_arrival, "pcr|capture", "pcr or capture",
      "capture: let the datagrams of a capture leave as far apart as they came",
      [](const std::string& text) -> std::optional<bool> {
        if (text == "pcr") {
          return false;
        }
        return text == "capture" ? std::optional(true) : std::nullopt;
      },
      "pcr");
  add.Flag("--keep-losses", o.keep_losses,
           "With --timing capture: leave a hole and skip the RTP sequence number for each packet "
           "that is missing in the capture");
  add.Value("--from", o.from, "TIME", "a time as 90s or 1h30m",
            "Start at this time by the PCRs; default: at the beginning", ParseDuration);
  add.Value("--duration", o.duration, "TIME", "a time as 90s or 1h30m",
            "Play this much by the PCRs; default: to the end", ParseDuration);
  add.Number("--program", o.program, 1, 65535,
             "Play one programme of a multiplex; null packets stand for the others");
  add.Value("--pid", o.pids, "PID[,PID...]", "PIDs from 0 to 8190, as 256,257",
            "Play some PIDs of a multiplex, with PCRs, PAT and PMT; null packets stand for the "
            "others",
            ParsePids);
  add.Flag("--follow", o.follow, "Go on with a file that grows");
  add.Value("--end-after-silence", o.silence, "TIME", "a time as 5s",
            "End when nothing has come from udp://, rtp:// or a growing file for this long; "
            "default: never",
            ParseDuration);
}

void DefineTarget(CLI::App& command, OptionBuilder& add, PlayOptions& o) {
  add.Group("Where to");
  command
      .add_option_function<std::vector<std::string>>(
          "--to,-t", [&o](const std::vector<std::string>& texts) { TakePlaces(texts, o); },
          "rtp://239.1.1.1:5004 or udp://[ff3e::8000:1]:5000; or FILE.pcapng, as --into, with "
          "frames to rtp://239.1.1.1:5004; required, and may be repeated")
      ->type_name("TARGET")
      ->allow_extra_args(false)
      ->required()
      ->group("Where to");
  add.Value("--into,-o", o.into, "FILE", "a file",
            "Write the frames to a pcapng file, with the times at which they would leave, and send "
            "nothing",
            ParseText);
  add.Flag("--socket", o.socket,
           "Send through a UDP socket, which receivers on this machine get, too; no rights needed. "
           "Default for targets on this machine, and without the right to send frames");
  add.Value("--sdp", o.sdp, "FILE", "a file",
            "Write a session description (SDP) of the RTP stream, which players open", ParseText);
  add.Flag("--sap", o.sap,
           "Announce the RTP stream to its group's listeners (SAP) until the playout ends");
  add.Value("--sap-interval", o.sap_interval, "TIME", "1s to 24h", "How often it is announced",
            ParseSapInterval, "300s");
  add.Value(
      "--device,-d", o.device, "NAME|N", "a name or a number",
      "Adapter by name or by its number in `ipplay devices`; default: the one on the route to "
      "the target",
      ParseText);
  const auto ip = [&](const char* name, auto& field, const char* help) {
    add.Value(name, field, "IP", "an IPv4 or IPv6 address", help, ParseIp);
  };
  ip("--src-ip", o.src_ip, "Source address; default: the device's own");
  ip("--dst-ip", o.dst_ip, "Destination address in the header; default: the target's");
  const auto mac = [&](const char* name, auto& field, const char* help) {
    add.Value(name, field, "MAC", "six bytes as in 02:00:5e:10:00:01", help, ParseMac);
  };
  mac("--src-mac", o.src_mac, "Source MAC address; default: the device's own");
  mac("--dst-mac", o.dst_mac,
      "Destination MAC address; default: mapped (multicast), broadcast, or resolved");
  add.Number("--src-port", o.src_port, 0, 65535, "Source port; default: as the destination port");
  add.Number("--dst-port", o.dst_port, 0, 65535,
             "Destination port in the header; default: the target's");
}

void DefineHeaders(OptionBuilder& add, PlayOptions& o) {
  add.Group("Header fields");
  add.Number("--ethertype", o.ether_type, 0, 0xFFFF, "EtherType; default: that of the IP version");
  add.Number("--vlan", o.vlan, 0, 4095, "Insert an 802.1Q tag with this VLAN id");
  add.Number("--vlan-priority", o.vlan_priority, 0, 7, "Priority in the tag", "0");
  add.Flag("--vlan-cfi", o.vlan_cfi, "Set the CFI/DEI bit in the tag");
  add.Number("--vlan-tpid", o.vlan_tpid, 0, 0xFFFF, "EtherType of the tag", "0x8100");
  add.Number("--ip-version", o.ip_version, 0, 15, "Version field; default 4 or 6");
  add.Number("--ttl,--hop-limit", o.ttl, 0, 255, "TTL or hop limit", "64");
  add.Number("--tos,--traffic-class", o.tos, 0, 255, "TOS byte or traffic class; default 0");
  add.Value("--dscp", o.dscp, "N", "0 to 63, EF, CS0 to CS7, or AF11 to AF43",
            "The same given by its upper six bits, or by name", ParseDscp);
  add.Number("--flow-label", o.flow_label, 0, 0xFFFFF, "IPv6 flow label", "0");
  add.Number("--identification", o.identification, 0, 65535,
             "IPv4 identification of the first datagram; default 0");
  add.Value("--dont-fragment", o.dont_fragment, "on|off", "on or off",
            "IPv4 don't-fragment bit, for frames of at most 1500 bytes; default: on for these",
            ParseOnOff);
  add.Number("--protocol,--next-header", o.protocol, 0, 255,
             "Protocol number; 2 adds the IPv4 router alert option", "17");
  add.Number("--rtp-version", o.rtp_version, 0, 3, "RTP version", "2");
  add.Number("--payload-type", o.payload_type, 0, 255,
             "RTP payload type, from 128 with the marker bit", "33");
  add.Flag("--rtp-extension", o.rtp_extension, "First RTP byte 0x80 whatever the version");
  add.Value("--sequence", o.sequence, "N|random", "random or 0 to 65535",
            "First RTP sequence number; default random",
            [](const std::string& text) { return ParseStartValue(text, 65535); });
  add.Value(
      "--ssrc", o.ssrc, "N|random", "random or 0 to 4294967295", "RTP SSRC",
      [](const std::string& text) { return ParseStartValue(text, kMaxU32); }, "random");
}

void DefinePayload(OptionBuilder& add, PlayOptions& o) {
  add.Group("Payload and bit rate");
  add.Number("--ts-per-datagram", o.ts_per_datagram, 1, 85,
             "Transport packets in each datagram; default 7");
  add.Number("--frame-size", o.frame_size, 1, 16128,
             "Size of the frame instead, from the Ethernet header to the end of the payload; "
             "filled with whole transport packets");
  add.Flag("--cut", o.cut, "Fill --frame-size to the byte, cutting transport packets");
  add.Flag("--as-188", o.as_188,
           "Play packets of 192 or 204 bytes without their time stamps or parity");
  add.Flag("--raw", o.raw, "Play any bytes, without looking for transport packets");
  add.Flag("--no-damage", o.no_damage, "Let the exit status be 1 if INPUT is damaged");
  add.Value("--bitrate,-b", o.bit_rate, "RATE", "1k or above, with k, M or G, as 9.75M",
            "Bit rate of the transport stream, to which null packets fill it up; default: the rate "
            "of its PCRs",
            ParsePlayedRate);
  add.Value("--frame-bitrate", o.frame_bit_rate, "RATE", "1k or above, with k, M or G, as 9.75M",
            "Bit rate of one stream's Ethernet frames instead, headers included", ParsePlayedRate);
  add.Number("--pcr-pid", o.pcr_pid, 0, 8191,
             "PID whose PCRs give the rate; default: the one whose PCRs cover most of the stream");
  add.Value(
      "--ppm", o.ppm, "N", "-100000 to 100000",
      "Play faster by this many parts per million, or slower if negative",
      [](const std::string& text) {
        const auto ppm = ParsePpm(text);
        return ppm && *ppm >= -1e5 && *ppm <= 1e5 ? ppm : std::nullopt;
      },
      "0");
  add.Value(
      "--speed", o.speed, "N", "0.001 to 1000, as 2 or 0.5",
      "Play this many times as fast as the PCRs say",
      [](const std::string& text) {
        const auto speed = ParseFactor(text);
        return speed && *speed >= 1e-3 && *speed <= 1e3 ? speed : std::nullopt;
      },
      "1");
  add.Value("--loop,-l", o.rounds, "N|forever", "forever or a number from 1",
            "Play the file this many times without a gap", ParseRounds, "1");
  add.Flag("--restamp", o.restamp,
           "Let PCR, PTS, DTS and continuity counters run through the rounds, so that a receiver "
           "sees one stream");
  add.Flag("--near-wrap", o.near_wrap,
           "Start counters and clocks 3 s before their wraps: RTP sequence number, IPv4 "
           "identification, PCR, PTS and DTS (implies --restamp)");
}

void DefineShape(OptionBuilder& add, PlayOptions& o) {
  add.Group("Timing and copies");
  add.Value("--burst", o.burst, "N|TIME", "a number of datagrams or whole milliseconds as 10ms",
            "Send this many datagrams of each stream back to back, at the same mean rate",
            ParseBurst);
  add.Value("--jitter", o.jitter, "PATTERN:AMOUNT",
            "square:TIME (up to 10 s) or gaussian:, squared-difference: or sine:PERCENT% (up to "
            "100%)",
            "Move datagrams in time: square:500us (peak to peak), or gaussian:20%, "
            "squared-difference:20%, sine:20% of the gap",
            ParseJitter);
  add.Value(
      "--copies,-c", o.copies, "N", "1 to 1000000", "Number of parallel streams",
      [](const std::string& text) -> std::optional<std::uint32_t> {
        const auto number = ParseNumber(text, 1, 1'000'000);
        if (!number) {
          return std::nullopt;
        }
        return static_cast<std::uint32_t>(*number);
      },
      "1");
}

void DefineFec(OptionBuilder& add, PlayOptions& o) {
  add.Group("Forward error correction (SMPTE ST 2022-1), RTP only");
  add.Value("--fec", o.fec, "LxD[:columns]",
            "LxD or LxD:columns, with L from 1 to 20, D from 4 to 20 and L times D up to 100",
            "Send FEC of L columns and D rows, as 10x5, to the port + 2 (columns) and + 4 (rows); "
            "10x5:columns: of columns only. It repairs datagrams that are lost or delayed on order",
            ParseFecMatrix);
  add.Flag("--fec-staggered", o.fec_staggered,
           "Begin the columns one after the other, not all with a matrix");
  add.Number("--fec-payload-type", o.fec_payload_type, 0, 127, "RTP payload type; default 96");
  add.Number("--fec-ssrc", o.fec_ssrc, 0, kMaxU32, "RTP SSRC; default 0");
  add.Value("--fec-lose", o.fec_lose, "N/RANGE", "N/RANGE with N from 1 to RANGE and to 1000000",
            "Lose N of every RANGE FEC datagrams, columns and rows each for themselves",
            ParseErrorSchedule);
  add.Value("--fec-delay", o.fec_delay, "N/RANGE[:D]",
            "N/RANGE:D with N from 1 to RANGE and D from 1",
            "Delay N of every RANGE FEC datagrams, each behind the next D; D is 1 by default",
            ParseDelaySchedule);
}

void DefineTwin(OptionBuilder& add, PlayOptions& o) {
  add.Group("The same RTP on a second path (SMPTE ST 2022-7)");
  add.Value("--twin", o.twin, "TARGET", "rtp://ADDRESS:PORT, IPv6 in [ ]",
            "Send the same datagrams, RTP header included, to this target, too", ParseTarget);
  add.Value("--twin-device", o.twin_device, "NAME|N", "a name or a number",
            "Its adapter; default: the one on the route to the target", ParseText);
  add.Value("--twin-skew", o.twin_skew, "TIME", "a time of up to 450ms",
            "How much later it leaves; default 0", [](const std::string& text) {
              const auto skew = ParseDuration(text);
              return skew && *skew <= std::chrono::milliseconds(450) ? skew : std::nullopt;
            });
  add.Value("--twin-lose", o.twin_lose, "N/RANGE", "N/RANGE with N from 1 to RANGE and to 1000000",
            "Lose N of every RANGE datagrams on it", ParseErrorSchedule);
  add.Value("--twin-delay", o.twin_delay, "N/RANGE[:D]",
            "N/RANGE:D with N from 1 to RANGE and D from 1",
            "Delay N of every RANGE datagrams on it, each behind the next D", ParseDelaySchedule);
  add.Value("--twin-jitter", o.twin_jitter, "PATTERN:AMOUNT",
            "square:TIME (up to 10 s) or gaussian:, squared-difference: or sine:PERCENT% (up to "
            "100%)",
            "Move its datagrams in time, as --jitter does", ParseJitter);
}

void DefineErrors(OptionBuilder& add, PlayOptions& o) {
  add.Group("Deliberate errors");
  const auto schedule = [&](const char* name, auto& field, const char* help) {
    add.Value(name, field, "N/RANGE|P%",
              "N/RANGE, such as 2/1000, with N from 1 to RANGE and at most 1000000; or 0% to 100%",
              help, ParseErrorSchedule);
  };
  schedule("--lose", o.lose, "Lose N of every RANGE datagrams, as in 2/1000, or each with P%");
  add.Value("--loss-model", o.loss_model, "P%,R%[,B%[,G%]]",
            "chances to turn bad and good, as 1%,25%, and of a loss while bad and while good",
            "Lose in bursts (Gilbert, Elliott): before each datagram the stream turns bad with P% "
            "and good with R%; while it is bad B% are lost (100%), else G% (0%)",
            ParseLossModel);
  add.Value("--holes", o.closes_holes, "kept|closed", "kept or closed",
            "Whether a lost datagram leaves a hole, or what follows leaves earlier", ParseHoles,
            "kept");
  add.Value("--delay", o.delay, "N/RANGE|P%[:D]",
            "N/RANGE:D or P%:D with N from 1 to RANGE and D from 1",
            "Delay N of every RANGE datagrams, each behind the next D; D is 1 by default; RTP only",
            ParseDelaySchedule);
  schedule("--duplicate", o.duplicate,
           "Send N of every RANGE a second time, right behind the first");
  add.Value("--corrupt", o.corrupt, "N/RANGE|P%[:BITS]",
            "N/RANGE:BITS or P%:BITS with N from 1 to RANGE and BITS from 1 to 1000",
            "Flip bits in the payload of N of every RANGE, with checksums that fit; 1 by default",
            ParseCorruption);
  schedule("--bad-ip-checksum", o.bad_ip_checksum,
           "Send N of every RANGE with a wrong IPv4 header checksum");
  schedule("--bad-udp-checksum", o.bad_udp_checksum,
           "Send N of every RANGE with a wrong UDP checksum");
  add.Flag("--random", o.random, "Place them at random within the range, not at its start");
}

// The two options that may be repeated.
void DefineSteps(CLI::App& command, PlayOptions& o) {
  command
      .add_option_function<std::vector<std::string>>(
          "--step",
          [&o](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
              const auto step = ParseStep(text);
              if (!step) {
                throw OptionBuilder::Invalid(
                    "--step", text,
                    "FIELD=VALUE with dst-ip, src-ip, dst-mac, src-mac, dst-port, src-port, vlan, "
                    "ttl, tos, flow-label, protocol, payload-type, ssrc or ethertype");
              }
              o.steps.push_back(*step);
            }
          },
          "Add VALUE to the field in each copy, compared with the copy before, as dst-ip=0.0.0.1 "
          "or dst-port=2; may be repeated")
      ->type_name("FIELD=VALUE")
      ->allow_extra_args(false)
      ->group("Timing and copies");
}

void DefineStreamFaults(CLI::App& command, PlayOptions& o) {
  command
      .add_option_function<std::vector<std::string>>(
          "--ts-fault",
          [&o](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
              const auto fault = ParseStreamFault(text);
              if (!fault) {
                throw OptionBuilder::Invalid(
                    "--ts-fault", text,
                    "continuity, sync, transport-error, drop, psi, pcr-offset:TIME, pcr-jump:TIME "
                    "or pcr-jitter:TIME, @PID if need be, and =N/RANGE or =P%, as "
                    "pcr-jump@256:150ms=1/50");
              }
              o.stream_faults.push_back(*fault);
            }
          },
          "Damage packets of the transport stream: continuity, sync, transport-error, drop, psi, "
          "pcr-offset:TIME, pcr-jump:TIME, pcr-jitter:TIME, in N of every RANGE that can have it, "
          "or each with P%, as continuity=1/1000 or drop@256=2%; may be repeated")
      ->type_name("FAULT[@PID][:TIME]=RATE")
      ->allow_extra_args(false)
      ->group("Deliberate errors");
}

void DefineTimeLine(CLI::App& command, PlayOptions& o) {
  command
      .add_option_function<std::vector<std::pair<std::string, std::string>>>(
          "--at",
          [&o](const std::vector<std::pair<std::string, std::string>>& entries) {
            for (const auto& [when, what] : entries) {
              const auto time = ParseDuration(when);
              if (!time) {
                throw OptionBuilder::Invalid("--at", when, "a time as 10s or 1h30m");
              }
              const auto action = ParseAction(what);
              if (!action) {
                throw OptionBuilder::Invalid(
                    "--at", what,
                    "lose[:N], delay[:D], duplicate[:N], corrupt[:BITS], bad-ip-checksum[:N], "
                    "bad-udp-checksum[:N], break:TIME, twin-lose[:N] and so on, pause[:TIME], "
                    "resume or stop");
              }
              o.time_line.emplace_back(*time, *action);
            }
          },
          "At this time after the start: lose, duplicate, bad-ip-checksum, bad-udp-checksum, each "
          "[:N] in a row, delay[:D], corrupt[:BITS], break:TIME (all is lost), "
          "twin-lose[:N] and so on (on the second path), pause[:TIME], resume or stop; may be "
          "repeated")
      ->type_name("TIME ACTION")
      ->group("Deliberate errors");
}

void DefineRun(OptionBuilder& add, PlayOptions& o) {
  add.Group("The run");
  add.Value("--priority", o.priority, "LEVEL",
            "idle, below-normal, normal, above-normal, highest or time-critical",
            "Priority of the thread that builds the datagrams", ParsePriority, "above-normal");
  add.Flag(
      "--economy", o.economy,
      "Use less processor time, with less exact gaps, as in a process with a nice value above 0");
  add.Value("--start-at", o.start_at, "TIME",
            "a time with its zone as 2026-01-31T12:00:00Z, or +5s from now",
            "Let the first datagram leave at this time of the system's clock", ParseWallClock);
  add.Flag("--wait-link", o.wait_link,
           "Go on when the link is down; what should have left meanwhile is lost and counted");
  add.Value(
      "--prefill", o.prefill, "TIME", "a time as 500ms",
      "Stream time to read before the first datagram leaves; default 1s for a file, 200ms for a "
      "live input, 0 for a pipe",
      ParseDuration);
  add.Value(
      "--late", o.late, "RULE", "bounded, catch-up, shift or drop",
      "What becomes of datagrams whose time has passed: sent at up to 1.25 times the rate until "
      "on time (bounded, the default), at once (catch-up), in their old gaps from then on "
      "(shift), or not at all (drop)",
      ParseLate);
  add.Value("--max-late", o.max_late, "TIME", "a time as 5ms",
            "Let the exit status be 1 if a datagram leaves later than this", ParseDuration);
  add.Flag("--no-underrun", o.no_underrun,
           "Let the exit status be 1 if the input was not there in time");
  add.Value(
      "--seed,-s", o.seed, "N", "1 to 9007199254740991",
      "Start of everything random, so that a run can be repeated; default: drawn and reported",
      [](const std::string& text) { return ParseNumber(text, 1, kMostSeed); });
}

void DefineWords(OptionBuilder& add, PlayOptions& o) {
  add.Value(
      "--stats", o.json_stats, "text|json", "text or json", "json: the same as --json",
      [](const std::string& text) -> std::optional<bool> {
        if (text == "json") {
          return true;
        }
        if (text == "text") {
          return false;
        }
        return std::nullopt;
      },
      "text");
  add.Flag(
      "--json,-j", o.json,
      "Print one JSON object a second and one at the end on standard output, and nothing else");
  add.Flag("--quiet,-q", o.quiet, "No progress; only errors, notes and the summary");
  add.Flag("--dry-run,-n", o.dry_run, "Print the plan and the first headers, and send nothing")
      ->configurable(false);
  add.Value("--control", o.control, "FILE", "a path",
            "Take orders as JSON lines from programs of this user on a socket at this path",
            ParseText);
  add.Value("--ledger", o.ledger, "FILE", "a file whose name ends in .pcapng",
            "Write each frame with the time at which it left, how late that was and what was done "
            "to it to a pcapng file",
            [](const std::string& text) {
              return text.ends_with(".pcapng") ? std::optional(text) : std::nullopt;
            });
  add.Value("--write-config", o.write_config, "FILE", "a file",
            "Write all options to FILE, which --config reads", ParseText)
      ->configurable(false);
}

}  // namespace

std::string PlayOptions::InputText() const {
  return then.empty() ? input : fmt::format("{} and {} more", input, then.size());
}

void DefinePlayOptions(CLI::App& command, PlayOptions& options) {
  OptionBuilder add(command);
  DefineInputs(command, options);
  DefineInput(add, options);
  DefineTarget(command, add, options);
  DefineHeaders(add, options);
  DefinePayload(add, options);
  DefineShape(add, options);
  DefineErrors(add, options);
  DefineFec(add, options);
  DefineTwin(add, options);
  DefineSteps(command, options);
  DefineStreamFaults(command, options);
  DefineTimeLine(command, options);
  DefineRun(add, options);
  DefineWords(add, options);
}

}  // namespace ipplay
