// SPDX-License-Identifier: MIT
// The options of `ipplay play`.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/address.h"
#include "host/play/play_values.h"

namespace CLI {
class App;
}

namespace ipplay {

// JSON readers keep whole numbers up to here.
inline constexpr std::uint64_t kMostSeed = (std::uint64_t{1} << 53) - 1;

// DefinePlayOptions() fills in the fixed defaults; MakePlan() decides about optional fields that
// have no value.
struct PlayOptions {
  // A target, or a capture file with frames to a target.
  struct Place {
    Target to;
    std::string into;
  };

  std::string input;
  std::vector<std::string> then;  // inputs that follow it
  std::optional<Endpoint> flow;   // of a capture
  bool by_arrival = false;        // a capture at its own times
  bool keep_losses = false;
  std::optional<std::chrono::nanoseconds> from, duration;
  std::optional<std::uint32_t> program;  // of a multiplex
  std::set<std::uint16_t> pids;          // of it; none: all
  bool follow = false;
  std::optional<std::chrono::nanoseconds> silence;  // that ends a live input
  Target to;
  std::string into;            // a capture file instead
  std::vector<Place> also_to;  // further ones
  std::string sdp;             // a file that describes the RTP stream
  bool sap = false;            // announce it
  std::chrono::nanoseconds sap_interval{0};
  bool socket = false;
  std::string device;  // name or position; empty: by the route to the target

  // Headers.
  std::optional<IpAddress> src_ip, dst_ip;
  std::optional<MacAddress> src_mac, dst_mac;
  std::optional<std::uint32_t> src_port, dst_port;
  std::optional<std::uint32_t> ether_type;
  std::optional<std::uint32_t> vlan;
  std::uint32_t vlan_priority = 0, vlan_tpid = 0;
  bool vlan_cfi = false;
  std::optional<std::uint32_t> ip_version, tos, dscp, identification;
  std::uint32_t ttl = 0, protocol = 0, flow_label = 0;
  std::optional<bool> dont_fragment;
  std::uint32_t rtp_version = 0, payload_type = 0;
  bool rtp_extension = false;
  std::optional<StartValue> sequence;
  StartValue ssrc;

  // Payload and rate.
  std::optional<std::uint32_t> ts_per_datagram, frame_size;
  bool cut = false;
  bool as_188 = false;
  bool raw = false;
  bool no_damage = false;
  std::optional<double> bit_rate, frame_bit_rate;
  std::optional<std::uint32_t> pcr_pid;
  double ppm = 0;
  double speed = 1;

  // Rounds.
  std::optional<std::uint64_t> rounds;  // none: without end
  bool restamp = false;
  bool near_wrap = false;

  // Shape and copies.
  std::optional<Burst> burst;
  std::optional<Jitter> jitter;
  std::uint32_t copies = 0;
  std::vector<Step> steps;

  // Forward error correction.
  std::optional<FecMatrixOrder> fec;
  bool fec_staggered = false;
  std::optional<std::uint32_t> fec_payload_type, fec_ssrc;
  std::optional<ErrorSchedule> fec_lose;
  std::optional<DelaySchedule> fec_delay;

  // A second path, and its own faults.
  std::optional<Target> twin;
  std::string twin_device;  // as device
  std::optional<std::chrono::nanoseconds> twin_skew;
  std::optional<ErrorSchedule> twin_lose;
  std::optional<DelaySchedule> twin_delay;
  std::optional<Jitter> twin_jitter;

  // Deliberate errors.
  std::optional<ErrorSchedule> lose, bad_ip_checksum, bad_udp_checksum;
  std::optional<DelaySchedule> delay;
  std::optional<ErrorSchedule> duplicate;
  std::optional<Corruption> corrupt;
  std::optional<LossModel> loss_model;
  bool closes_holes = false;
  bool random = false;
  std::vector<StreamFault> stream_faults;
  std::vector<std::pair<std::chrono::nanoseconds, Action>> time_line;  // in the order given

  // The run itself.
  bool economy = false;
  std::uint32_t priority = 0;
  std::optional<std::chrono::nanoseconds> start_at;  // since 1970
  bool wait_link = false;
  std::optional<std::chrono::nanoseconds> prefill;
  std::optional<std::uint32_t> late;  // as IPPLAYOUT_LATE_...
  std::optional<std::uint64_t> seed;  // none: drawn
  std::optional<std::chrono::nanoseconds> max_late;
  bool no_underrun = false;
  bool json = false, json_stats = false;  // see WantsJson
  bool quiet = false;
  bool dry_run = false;
  std::string write_config;
  std::string control;  // path of a socket
  std::string ledger;   // a capture file of what became of each frame

  bool WantsJson() const { return json || json_stats; }
  // All of them, in words.
  std::string InputText() const;
};

// Adds the options to `command`. Parsing fills `options`, which must live as long as `command`, and
// throws CLI::ParseError in one line: the option, what is wrong with its value, what to give.
void DefinePlayOptions(CLI::App& command, PlayOptions& options);

}  // namespace ipplay
